#include "qelibaselib/platform/linux/modules/symbol_name.h"

#include <cxxabi.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

namespace qel::layer {
namespace {

constexpr std::string_view kUnnamedNamespace = "_GLOBAL__N_1";
// The demangler works on the stack, in proportion to the name.
constexpr std::size_t kLongestDemangled = 512;

class NameWriter {
 public:
  NameWriter(char* text, std::size_t size) : text_(text), size_(size) { text_[0] = '\0'; }
  void Append(std::string_view part) {
    const std::size_t count = std::min(part.size(), size_ - 1 - length_);
    std::memcpy(text_ + length_, part.data(), count);
    length_ += count;
    text_[length_] = '\0';
  }
  void AppendQualified(std::string_view part) {
    if (length_ > 0) Append("::");
    Append(part);
  }

 private:
  char* const text_;
  const std::size_t size_;
  std::size_t length_ = 0;
};

bool IsDigit(char character) { return character >= '0' && character <= '9'; }

/// "<length><name>", with the mark of an internal name before it; false when something else stands there.
bool TakeSourceName(std::string_view& rest, std::string_view& name) {
  if (rest.starts_with('L')) rest.remove_prefix(1);
  std::size_t length = 0;
  std::size_t digits = 0;
  for (; digits < rest.size() && digits < 6 && IsDigit(rest[digits]); ++digits)
    length = length * 10 + (rest[digits] - '0');
  if (digits == 0 || length == 0 || length > rest.size() - digits) return false;
  name = rest.substr(digits, length);
  rest.remove_prefix(digits + length);
  return true;
}

/// Constructors and destructors: "C1".."C3", "D0".."D2".
bool TakeStructor(std::string_view& rest, std::string_view type, NameWriter& out) {
  if (rest.size() < 2 || (rest[0] != 'C' && rest[0] != 'D') || !IsDigit(rest[1]) || type.empty()) return false;
  out.AppendQualified(rest[0] == 'D' ? "~" : "");
  out.Append(type);
  rest.remove_prefix(2);
  return true;
}

/// The plain forms, without templates, operators and local entities: what most names are. No memory is allocated.
bool DemanglePlain(std::string_view rest, NameWriter out) {
  std::string_view name;
  if (!rest.starts_with('N')) {
    // Behind the name only parameters may follow; "I" starts template arguments, "B" a tag.
    if (!TakeSourceName(rest, name) || rest.starts_with('I') || rest.starts_with('B')) return false;
    out.Append(name);
    return true;
  }
  rest.remove_prefix(1);
  while (rest.starts_with('K') || rest.starts_with('V')) rest.remove_prefix(1);
  if (rest.starts_with("St")) {
    out.Append("std");
    rest.remove_prefix(2);
  }
  while (!rest.starts_with('E')) {
    if (TakeStructor(rest, name, out)) continue;
    if (!TakeSourceName(rest, name)) return false;
    if (name != kUnnamedNamespace) out.AppendQualified(name);
  }
  return true;
}

/// Where the parameter list that ends a declaration starts; its end when there is none.
char* FindParameters(char* declaration) {
  char* end = declaration + std::strlen(declaration);
  if (end == declaration || end[-1] != ')') return end;
  int depth = 0;
  for (char* at = end; at-- != declaration;) {
    if (*at == ')') ++depth;
    if (*at == '(' && --depth == 0) return at;
  }
  return end;
}

void CutQualifiers(char* declaration) {
  for (const char* suffix : {" [clone", " [abi:"}) {
    if (char* at = std::strstr(declaration, suffix)) *at = '\0';
  }
  for (bool cut = true; cut;) {
    cut = false;
    for (const std::string_view qualifier : {" const", " volatile", "&"}) {
      const std::string_view text = declaration;
      if (!text.ends_with(qualifier)) continue;
      declaration[text.size() - qualifier.size()] = '\0';
      cut = true;
    }
  }
}

/// A function template's declaration starts with its result. Only blanks outside brackets end it.
char* SkipResult(char* name) {
  char* start = name;
  int depth = 0;
  for (char* at = name; *at; ++at) {
    if (depth == 0 && std::strncmp(at, "operator", 8) == 0) break;
    if (*at == '<' || *at == '(' || *at == '{') ++depth;
    if (*at == '>' || *at == ')' || *at == '}') --depth;
    if (*at == ' ' && depth == 0) start = at + 1;
  }
  return start;
}

void RemoveAll(char* text, const char* part) {
  const std::size_t length = std::strlen(part);
  while (char* at = std::strstr(text, part)) std::memmove(at, at + length, std::strlen(at + length) + 1);
}

bool DemangleAny(const char* stored, NameWriter out) {
  if (std::strlen(stored) > kLongestDemangled) return false;
  int status = 0;
  const std::unique_ptr<char, void (*)(void*)> full(abi::__cxa_demangle(stored, nullptr, nullptr, &status), std::free);
  if (!full) return false;
  KeepNameOnly(full.get());
  out.Append(full.get());
  return true;
}

}  // namespace

void KeepNameOnly(char* declaration) {
  CutQualifiers(declaration);
  *FindParameters(declaration) = '\0';
  RemoveAll(declaration, "(anonymous namespace)::");
  const char* name = SkipResult(declaration);
  std::memmove(declaration, name, std::strlen(name) + 1);
}

void ReadableName(const char* stored, char* text, std::size_t size) {
  if (size == 0) return;
  const std::string_view name = stored;
  if (name.starts_with("_Z")) {
    if (DemanglePlain(name.substr(2), NameWriter(text, size))) return;
    if (DemangleAny(stored, NameWriter(text, size))) return;
  }
  NameWriter(text, size).Append(name.substr(0, name.find_first_of("@.")));
}

}  // namespace qel::layer
