#include "qelibaselib/platform/linux/modules/version_resource.h"

#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "qelibaselib/platform/fault/fault.h"
#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/base/utf8.h"
#include "qelibaselib/platform/linux/win32/fileapi.h"
#include "qelibaselib/platform/linux/win32/handleapi.h"
#include "qelibaselib/platform/linux/win32/libloaderapi.h"
#include "qelibaselib/platform/linux/win32/memoryapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"
#include "qelibaselib/platform/linux/win32/winver.h"

namespace qel::layer {
namespace {

struct VersionNode {
  Bytes key;  // UTF-16 without the terminator
  Bytes value;
  Bytes children;
  bool text = false;
  size_t size = 0;  // to the next node, before alignment
};

size_t Align4(size_t offset) { return (offset + 3) & ~size_t{3}; }

uint16_t Word(Bytes bytes, size_t offset) {
  uint16_t value;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

/// The node at the start of `bytes`, which start on a 4-byte boundary of the resource; none when it does not fit.
std::optional<VersionNode> ParseNode(Bytes bytes) {
  constexpr size_t kHeader = 6;
  if (bytes.size() < kHeader + 2) return std::nullopt;
  VersionNode node;
  node.size = Word(bytes, 0);
  if (node.size < kHeader + 2 || node.size > bytes.size()) return std::nullopt;
  bytes = bytes.first(node.size);
  const size_t valueLength = Word(bytes, 2);
  node.text = Word(bytes, 4) == 1;
  size_t end = kHeader;
  while (end + 2 <= bytes.size() && Word(bytes, end) != 0) end += 2;
  if (end + 2 > bytes.size()) return std::nullopt;
  node.key = bytes.subspan(kHeader, end - kHeader);
  const size_t valueBegin = std::min(Align4(end + 2), bytes.size());
  // Text is counted in characters; some compilers count bytes, which the node's end corrects.
  const size_t valueBytes = std::min(node.text ? valueLength * 2 : valueLength, bytes.size() - valueBegin);
  node.value = bytes.subspan(valueBegin, node.text ? valueBytes & ~size_t{1} : valueBytes);
  node.children = bytes.subspan(std::min(Align4(valueBegin + valueBytes), bytes.size()));
  return node;
}

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool SameKey(Bytes key, std::string_view name) {
  if (key.size() != name.size() * 2) return false;
  for (size_t i = 0; i < name.size(); ++i) {
    const uint16_t unit = Word(key, i * 2);
    if (unit > 0x7F || Lower(static_cast<char>(unit)) != Lower(name[i])) return false;
  }
  return true;
}

std::optional<VersionNode> FindChild(Bytes children, std::string_view name) {
  while (auto node = ParseNode(children)) {
    if (SameKey(node->key, name)) return node;
    const size_t next = Align4(node->size);
    if (next >= children.size()) break;
    children = children.subspan(next);
  }
  return std::nullopt;
}

}  // namespace

VersionValue FindVersionValue(Bytes resource, std::string_view path) {
  auto node = ParseNode(resource);
  while (node) {
    const size_t begin = path.find_first_not_of('\\');
    if (begin == std::string_view::npos) return {true, node->text, node->value};
    const size_t end = std::min(path.find('\\', begin), path.size());
    node = FindChild(node->children, path.substr(begin, end - begin));
    path.remove_prefix(end);
  }
  return {};
}

namespace {

// A block is the resource, this mark on a 4-byte boundary behind it, and room for the narrow form of every text in it:
// three bytes for each UTF-16 unit, at the place that the unit's offset gives. So a text has one place in the block,
// and repeated queries give the same pointer.
constexpr uint32_t kNarrowTextMark = 0x58324546;

size_t BlockSize(size_t resourceSize) {
  return Align4(resourceSize) + sizeof kNarrowTextMark + resourceSize / 2 * 3 + 4;
}

/// How much of a resource fits a block that the caller made too short.
size_t UsableResource(size_t resourceSize, size_t blockSize) {
  while (resourceSize > 0 && BlockSize(resourceSize) > blockSize) resourceSize -= std::min<size_t>(resourceSize, 4);
  return resourceSize;
}

class OwnedHandle {
 public:
  explicit OwnedHandle(HANDLE handle) : handle_(handle) {}
  OwnedHandle(const OwnedHandle&) = delete;
  OwnedHandle& operator=(const OwnedHandle&) = delete;
  ~OwnedHandle() {
    if (IsOpen()) CloseHandle(handle_);
  }
  bool IsOpen() const { return handle_ && handle_ != INVALID_HANDLE_VALUE; }
  HANDLE get() const { return handle_; }

 private:
  const HANDLE handle_;
};

class OwnedView {
 public:
  OwnedView(HANDLE mapping, size_t bytes)
      : start_(static_cast<const uint8_t*>(MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 0))), bytes_(bytes) {}
  OwnedView(const OwnedView&) = delete;
  OwnedView& operator=(const OwnedView&) = delete;
  ~OwnedView() {
    if (start_) UnmapViewOfFile(start_);
  }
  bool IsMapped() const { return start_ != nullptr; }
  Bytes bytes() const { return {start_, bytes_}; }

 private:
  const uint8_t* const start_;
  const size_t bytes_;
};

/// Copies the version resource of a module, cut to what its root node says.
DWORD CopyResource(Bytes file, std::vector<uint8_t>& resource) {
  DWORD error = ERROR_SUCCESS;
  Bytes found = FindVersionResource(file, error);
  if (error != ERROR_SUCCESS) return error;
  if (found.size() < sizeof(uint16_t)) return ERROR_RESOURCE_DATA_NOT_FOUND;
  found = found.first(std::min<size_t>(found.size(), Word(found, 0)));
  if (found.size() < sizeof(uint16_t)) return ERROR_RESOURCE_DATA_NOT_FOUND;
  resource.assign(found.begin(), found.end());
  return ERROR_SUCCESS;
}

/// The same; the pages of a file that is cut meanwhile fault.
DWORD CopyResourceOfView(Bytes file, std::vector<uint8_t>& resource) {
  DWORD error = ERROR_RESOURCE_DATA_NOT_FOUND;
  try {
    fault::Run([&] { error = CopyResource(file, resource); });
  } catch (const std::bad_alloc&) {
    return ERROR_NOT_ENOUGH_MEMORY;
  } catch (...) {
    return ERROR_RESOURCE_DATA_NOT_FOUND;
  }
  return error;
}

/// The version resource of a file; an error otherwise. The file is mapped, so that only the pages on the way to the
/// resource are read, whatever its size.
DWORD LoadVersionResource(LPCWSTR name, std::vector<uint8_t>& resource) {
  if (!name) return ERROR_INVALID_PARAMETER;
  if (!*name) return ERROR_BAD_PATHNAME;
  const OwnedHandle file(CreateFileW(name, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                     nullptr, OPEN_EXISTING, 0, nullptr));
  if (!file.IsOpen()) return GetLastError();
  LARGE_INTEGER size{};
  if (!GetFileSizeEx(file.get(), &size)) return GetLastError();
  if (size.QuadPart == 0 || size.QuadPart > 0x7FFFFFFF) return ERROR_RESOURCE_DATA_NOT_FOUND;
  const OwnedHandle mapping(CreateFileMappingW(file.get(), nullptr, PAGE_READONLY, 0, 0, nullptr));
  if (!mapping.IsOpen()) return GetLastError();
  const OwnedView view(mapping.get(), static_cast<size_t>(size.QuadPart));
  return view.IsMapped() ? CopyResourceOfView(view.bytes(), resource) : GetLastError();
}

/// UTF-16 up to its terminator or end as UTF-8, into room for three bytes a unit and one more. The length with the NUL.
size_t Narrow(Bytes text, char* target) {
  char* out = target;
  for (size_t i = 0; i + 2 <= text.size(); i += 2) {
    uint32_t code = Word(text, i);
    if (code == 0) break;
    const uint32_t low = code >= 0xD800 && code < 0xDC00 && i + 4 <= text.size() ? Word(text, i + 2) : 0;
    if (low >= 0xDC00 && low < 0xE000) {
      code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
      i += 2;
    } else if (code >= 0xD800 && code < 0xE000) {
      code = '?';  // half of a pair
    }
    out = EncodeUtf8(static_cast<wchar_t>(code), out);
  }
  *out++ = '\0';
  return static_cast<size_t>(out - target);
}

}  // namespace
}  // namespace qel::layer

using qel::layer::Align4;
using qel::layer::Bytes;

DWORD GetFileVersionInfoSizeW(LPCWSTR file, LPDWORD handle) {
  if (handle) *handle = 0;
  std::vector<uint8_t> resource;
  const DWORD error = qel::layer::LoadVersionResource(file, resource);
  SetLastError(error);
  return error == ERROR_SUCCESS ? static_cast<DWORD>(qel::layer::BlockSize(resource.size())) : 0;
}

BOOL GetFileVersionInfoW(LPCWSTR file, DWORD, DWORD size, LPVOID block) {
  if (!block) return qel::layer::ReportResult(ERROR_INVALID_DATA);
  std::vector<uint8_t> resource;
  const DWORD error = qel::layer::LoadVersionResource(file, resource);
  SetLastError(error);
  if (error != ERROR_SUCCESS) return FALSE;
  auto* out = static_cast<uint8_t*>(block);
  std::memset(out, 0, size);
  const size_t usable = qel::layer::UsableResource(resource.size(), size);
  if (usable < 2) return TRUE;
  std::memcpy(out, resource.data(), usable);
  const auto length = static_cast<uint16_t>(usable);
  std::memcpy(out, &length, sizeof length);
  std::memcpy(out + Align4(usable), &qel::layer::kNarrowTextMark, sizeof qel::layer::kNarrowTextMark);
  return TRUE;
}

BOOL VerQueryValueA(LPCVOID block, LPCSTR query, LPVOID* value, PUINT length) {
  if (length) *length = 0;
  const auto* bytes = static_cast<const uint8_t*>(block);
  if (!bytes || !query || !value) return qel::layer::ReportResult(ERROR_INVALID_PARAMETER);
  uint16_t size;
  std::memcpy(&size, bytes, sizeof size);
  const auto found = size == 0 ? qel::layer::VersionValue{} : qel::layer::FindVersionValue(Bytes(bytes, size), query);
  if (!found.found) return qel::layer::ReportResult(ERROR_RESOURCE_TYPE_NOT_FOUND);
  const uint8_t* place = found.bytes.data();
  size_t count = found.bytes.size();
  if (found.text && count > 0) {
    const size_t offset = static_cast<size_t>(found.bytes.data() - bytes);
    uint8_t* narrow = const_cast<uint8_t*>(bytes) + Align4(size) + sizeof qel::layer::kNarrowTextMark + offset / 2 * 3;
    count = qel::layer::Narrow(found.bytes, reinterpret_cast<char*>(narrow));
    place = narrow;
  }
  *value = const_cast<uint8_t*>(place);
  if (length) *length = static_cast<UINT>(count);
  return TRUE;
}
