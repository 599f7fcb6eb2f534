#include "test/platform/recorded/call_scope.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <stdexcept>

namespace qel::test {
namespace {

const std::map<std::string, LONGLONG> kNames = {
    {"TRUE", 1},
    {"FALSE", 0},
    {"R", 0x80000000},
    {"W", 0x40000000},
    {"RW", 0xC0000000},
    {"DELETE", DELETE},
    {"ALL", 7},
    {"BACKUP", 0x02000000},
    {"OVERLAPPED", 0x40000000},
    {"CLOSE", 0x04000000},
    {"INFINITE", INFINITE},
    {"LONG", 60'000},
    {"SAME", DUPLICATE_SAME_ACCESS},
    {"COMMIT", MEM_COMMIT},
    {"RESERVE", MEM_RESERVE},
    {"RELEASE", MEM_RELEASE},
    {"DECOMMIT", MEM_DECOMMIT},
};

}  // namespace

std::string Quoted(const std::wstring& text) {
  std::string shown = "\"";
  for (const wchar_t character : text) {
    char code[16];
    const bool isPlain = character >= ' ' && character < 0x7F;
    std::snprintf(code, sizeof code, isPlain ? "%c" : "{%x}", static_cast<int>(character));
    shown += code;
  }
  return shown + '"';
}

std::string Quoted(const std::string& text) {
  std::wstring wide;
  for (const char byte : text) wide += static_cast<unsigned char>(byte);
  return Quoted(wide);
}

CallScope::CallScope() : before_(std::filesystem::current_path()) {
  static std::atomic<unsigned> count{0};
  std::filesystem::current_path(folder_.Path());
  unique_ = L"qel-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++count);
}

CallScope::~CallScope() {
  for (const auto& [name, variable] : variables_)
    if (variable.closer) variable.closer(variable.value);
  for (const Variable& variable : replaced_)
    if (variable.closer) variable.closer(variable.value);
  std::filesystem::current_path(before_);
}

std::wstring CallScope::WideText(const std::string& word) const {
  std::wstring text;
  for (size_t i = 1; i + 1 < word.size(); ++i) {
    if (word[i] != '{') {
      text += static_cast<unsigned char>(word[i]);
      continue;
    }
    const std::string inside = word.substr(i + 1, word.find('}', i) - i - 1);
    i += inside.size() + 1;
    if (inside == "u")
      text += unique_;
    else if (inside == "here")
      text += folder_.Wide();
    else if (inside.starts_with("rest"))  // up to the longest path, or so much shorter
      text += std::wstring(258 - folder_.Wide().size() - std::stoul("0" + inside.substr(4)), L'n');
    else if (inside.find('*') != std::string::npos)
      text += std::wstring(std::stoul(inside), static_cast<wchar_t>(inside.back()));
    else if (const unsigned long code = std::stoul(inside, nullptr, 16); code > 0xFFFF && sizeof(wchar_t) == 2)
      text += {static_cast<wchar_t>(0xD7C0 + (code >> 10)), static_cast<wchar_t>(0xDC00 + (code & 0x3FF))};
    else
      text += static_cast<wchar_t>(code);
  }
  return text;
}

std::string CallScope::NarrowText(const std::string& word) const {
  const std::wstring wide = WideText(word);
  return {wide.begin(), wide.end()};
}

LONGLONG CallScope::Number(const std::string& word) const {
  LONGLONG number = 0;
  for (size_t at = 0; at <= word.size();) {
    const size_t end = std::min(word.find('|', at), word.size());
    const std::string part = word.substr(at, end - at);
    const auto name = kNames.find(part);
    const auto variable = variables_.find(part);
    number |= name != kNames.end() ? name->second
              : variable != variables_.end()
                  ? static_cast<LONGLONG>(reinterpret_cast<uintptr_t>(variable->second.value))
                  : std::stoll(part, nullptr, 0);
    at = end + 1;
  }
  return number;
}

LARGE_INTEGER CallScope::Large(const std::string& word) const {
  LARGE_INTEGER large;
  large.QuadPart = Number(word);
  return large;
}

wchar_t* CallScope::WideBuffer(const std::string& word) {
  std::wstring& buffer = wide_.emplace_back(word == "*" ? L"" : WideText(word));
  buffer.resize(600);
  written_.push_back([this, &buffer] {
    std::wstring text = buffer.c_str();
    if (text.starts_with(folder_.Wide())) text.replace(0, folder_.Wide().size() + 1, L"here, ");
    return Quoted(text);
  });
  return buffer.data();
}

char* CallScope::NarrowBuffer(const std::string& word) {
  std::string& buffer = narrow_.emplace_back(word == "*" ? "" : NarrowText(word));
  buffer.resize(600);
  written_.push_back([&buffer] { return Quoted(std::string(buffer.c_str())); });
  return buffer.data();
}

LARGE_INTEGER* CallScope::LargePlace() {
  LARGE_INTEGER& place = larges_.emplace_back();
  place.QuadPart = 99;
  written_.push_back([&place] { return std::to_string(place.QuadPart); });
  return &place;
}

DWORD* CallScope::Place() {
  LARGE_INTEGER& place = larges_.emplace_back();
  place.QuadPart = 99;
  written_.push_back([&place] { return std::to_string(place.LowPart); });
  return reinterpret_cast<DWORD*>(&place.LowPart);
}

OVERLAPPED* CallScope::Offset(const std::string& word) {
  if (word == "null") return nullptr;
  OVERLAPPED& overlapped = overlapped_.emplace_back();
  const LARGE_INTEGER offset = Large(word.substr(1));
  overlapped.Offset = offset.LowPart;
  overlapped.OffsetHigh = static_cast<DWORD>(offset.HighPart);
  return &overlapped;
}

// "a,b,c", or "64*a".
void* const* CallScope::Handles(const std::string& word) {
  std::vector<void*>& handles = handles_.emplace_back();
  if (const size_t star = word.find('*'); star != std::string::npos)
    handles.assign(std::stoul(word), Pointer(word.substr(star + 1)));
  for (size_t at = 0; handles.empty() || at <= word.size();) {
    if (word.find('*') != std::string::npos) break;
    const size_t end = std::min(word.find(',', at), word.size());
    handles.push_back(Pointer(word.substr(at, end - at)));
    at = end + 1;
  }
  return handles.data();
}

void* CallScope::Pointer(const std::string& word) const {
  if (word == "null") return nullptr;
  if (word == "invalid" || word == "process") return INVALID_HANDLE_VALUE;
  if (word == "this-thread") return GetCurrentThread();
  if (word.starts_with("0x")) return reinterpret_cast<void*>(static_cast<uintptr_t>(Number(word)));
  const size_t plus = word.find('+');
  const auto variable = variables_.find(word.substr(0, plus));
  if (variable == variables_.end()) throw std::invalid_argument("no variable " + word);
  const LONGLONG offset = plus == std::string::npos ? 0 : Number(word.substr(plus + 1));
  return static_cast<char*>(variable->second.value) + offset;
}

std::string CallScope::Describe(const void* pointer) const {
  if (!pointer) return "null";
  if (pointer == INVALID_HANDLE_VALUE) return "invalid";
  for (const auto& [name, variable] : variables_) {
    const auto offset = static_cast<const char*>(pointer) - static_cast<const char*>(variable.value);
    const bool isMemory = variable.closer == &ReleaseView || variable.closer == &ReleaseBlock;
    if (isMemory && offset >= 0 && offset < 0x10000) return name + "+" + std::to_string(offset);
  }
  return "given";
}

std::string CallScope::TakeWritten() {
  std::string text;
  for (const auto& show : written_) text += " *" + show();
  written_.clear();
  return text;
}

void CallScope::SetVariable(const std::string& name, void* value, Closer closer) {
  Variable& variable = variables_[name];
  if (variable.closer) replaced_.push_back(variable);
  const bool isNone = value == nullptr || value == INVALID_HANDLE_VALUE;
  variable = {value, isNone ? nullptr : closer};
}

void CallScope::Forget(void* value) {
  for (auto& [name, variable] : variables_)
    if (variable.value == value) variable.closer = nullptr;
}

}  // namespace qel::test
