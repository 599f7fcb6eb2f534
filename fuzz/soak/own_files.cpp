#include "fuzz/soak/own_files.h"

#include <iterator>

#include "qelibaselib/qelibaselib.h"

namespace qel::soak {
namespace {

constexpr DWORD kBudgetMs = 2000;
constexpr DWORD kIntervalMs = 50;
constexpr uint32_t kLargestFile = 200'000;
// Names that Linux users have and Windows users do not.
constexpr const wchar_t* kNames[] = {L"a",
                                     L"a.",
                                     L"b c ",
                                     L"Co.",
                                     L"x:y",
                                     L"\u00E4\u6F22",
                                     L".hidden",
                                     L"long name with many words",
                                     L"\uF05C\uF05C",
                                     L"..\uF05C..\uF05Coutside",
                                     L"\uF02A",
                                     L"n1",
                                     L"n2",
                                     L"n3"};

std::string Failed(const char* call, const std::wstring& path) {
  std::string name;
  for (const wchar_t c : path) name += c < 128 ? static_cast<char>(c) : '?';
  return std::string(call) + " failed, error " + std::to_string(GetLastError()) + ", " + name;
}

HANDLE Open(const std::wstring& path, DWORD access, DWORD disposition) {
  return CreateFileX(__LINE__, __FILE__, path.c_str(), access, FILE_SHARE_READ, nullptr, disposition,
                     FILE_ATTRIBUTE_NORMAL, nullptr, kBudgetMs, kIntervalMs);
}

}  // namespace

std::vector<unsigned char> ContentOf(uint32_t number) {
  Random random(number);
  std::vector<unsigned char> bytes(random() % kLargestFile);
  for (auto& byte : bytes) {
    number = number * 1664525u + 1013904223u;
    byte = static_cast<unsigned char>(number >> 24);
  }
  return bytes;
}

OwnFiles::OwnFiles(std::wstring folder, Random& random) : folder_(std::move(folder)), random_(random) {
  DeleteDirectoryTree(__LINE__, __FILE__, folder_.c_str(), TRUE, TRUE);
  SHCreateDirectoryExX(__LINE__, __FILE__, folder_.c_str());
}

std::wstring OwnFiles::PathOf(const std::wstring& name) const { return folder_ + L"/" + name; }

std::wstring OwnFiles::AnyName() {
  const std::wstring name = kNames[random_() % std::size(kNames)];
  return random_() % 3 ? name : L"sub" + std::to_wstring(random_() % 3) + L"/" + name;
}

const std::pair<const std::wstring, uint32_t>* OwnFiles::AnyFile() {
  if (files_.empty()) return nullptr;
  return &*std::next(files_.begin(), static_cast<long>(random_() % files_.size()));
}

std::string OwnFiles::Write() {
  const std::wstring name = AnyName(), path = PathOf(name);
  const uint32_t number = random_();
  auto bytes = ContentOf(number);
  HANDLE file = Open(path, GENERIC_WRITE, CREATE_ALWAYS);
  if (file == INVALID_HANDLE_VALUE) return Failed("CreateFileX", path);
  DWORD written = 0;
  const BOOL done =
      WriteFileX(__LINE__, __FILE__, file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
  const bool held = Open(path, GENERIC_WRITE, OPEN_EXISTING) == INVALID_HANDLE_VALUE;
  CloseHandle(file);
  if (!done || written != bytes.size()) return Failed("WriteFileX", path);
  if (!held) return "a second writer was let in";
  files_[name] = number;
  return {};
}

std::string OwnFiles::WriteThroughMapping() {
  const std::wstring name = AnyName(), path = PathOf(name);
  const uint32_t number = random_();
  auto bytes = ContentOf(number);
  if (bytes.empty()) return {};
  SHCreateDirectoryExX(__LINE__, __FILE__, path.substr(0, path.rfind(L'/')).c_str());
  if (!Mem2FileMMF(__LINE__, __FILE__, bytes.data(), static_cast<DWORD>(bytes.size()), path.c_str(), -1))
    return Failed("Mem2FileMMF", path);
  files_[name] = number;
  return {};
}

std::string OwnFiles::Copy() {
  const auto* source = AnyFile();
  if (!source) return {};
  const uint32_t number = source->second;
  const std::wstring from = PathOf(source->first), name = AnyName();
  if (PathOf(name) == from) return {};
  if (!CopyFileX(__LINE__, __FILE__, from.c_str(), PathOf(name).c_str(), FALSE, kBudgetMs, kIntervalMs))
    return Failed("CopyFileX", PathOf(name));
  files_[name] = number;
  return {};
}

std::string OwnFiles::Move() {
  const auto* source = AnyFile();
  const std::wstring name = AnyName();
  if (!source || source->first == name) return {};
  const auto [from, number] = *source;
  if (!MoveFileX(__LINE__, __FILE__, PathOf(from).c_str(), PathOf(name).c_str()))
    return Failed("MoveFileX", PathOf(from) + L" -> " + PathOf(name));
  files_.erase(from);
  files_[name] = number;
  return {};
}

std::string OwnFiles::Delete() {
  const auto* file = AnyFile();
  if (!file) return {};
  const std::wstring name = file->first;
  if (!DeleteFileX(__LINE__, __FILE__, PathOf(name).c_str(), kBudgetMs, kIntervalMs))
    return Failed("DeleteFileX", PathOf(name));
  files_.erase(name);
  return {};
}

std::string OwnFiles::VerifyFile(const std::wstring& path, uint32_t content) const {
  const auto wanted = ContentOf(content);
  HANDLE file = Open(path, GENERIC_READ, OPEN_EXISTING);
  if (file == INVALID_HANDLE_VALUE) return Failed("CreateFileX", path);
  std::vector<unsigned char> bytes(wanted.size() + 1);
  DWORD read = 0;
  const BOOL done = ReadFileX(__LINE__, __FILE__, file, bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr);
  CloseHandle(file);
  if (!done) return Failed("ReadFileX", path);
  bytes.resize(read);
  return bytes == wanted ? "" : Failed("comparing (a file was changed that no operation named)", path);
}

std::string OwnFiles::Verify() {
  const auto* file = AnyFile();
  return file ? VerifyFile(PathOf(file->first), file->second) : "";
}

std::string OwnFiles::CopyTree(const std::wstring& target) {
  // What a worker that was killed here has left.
  DeleteDirectoryTree(__LINE__, __FILE__, target.c_str(), TRUE, TRUE);
  if (!CopyDirectoryTree(__LINE__, __FILE__, folder_.c_str(), target.c_str()))
    return Failed("CopyDirectoryTree", target);
  unsigned long long wanted = 0, size = 0;
  for (const auto& [name, number] : files_) wanted += ContentOf(number).size();
  if (!GetFileSizeDirectoryTree(__LINE__, __FILE__, target.c_str(), &size))
    return Failed("GetFileSizeDirectoryTree", target);
  if (size != wanted) return "a copied tree has " + std::to_string(size) + " bytes and not " + std::to_string(wanted);
  for (const auto& [name, number] : files_) {
    std::string wrong = VerifyFile(target + L"/" + name, number);
    if (!wrong.empty()) return wrong;
  }
  if (!DeleteDirectoryTree(__LINE__, __FILE__, target.c_str(), TRUE, TRUE))
    return Failed("DeleteDirectoryTree", target);
  return {};
}

}  // namespace qel::soak
