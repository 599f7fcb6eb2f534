#include "qelibaselib/platform/linux/system/profile_text.h"

#include <strings.h>

namespace qel::layer {
namespace {

constexpr std::string_view kBlanks = " \t\r";

std::string_view Trim(std::string_view text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

bool SameName(std::string_view first, std::string_view second) {
  if (first.size() != second.size()) return false;
  return first.empty() || strncasecmp(first.data(), second.data(), first.size()) == 0;
}

std::string_view WithoutQuotes(std::string_view value) {
  const bool quoted = value.size() >= 2 && value.front() == value.back() && (value[0] == '"' || value[0] == '\'');
  return quoted ? value.substr(1, value.size() - 2) : value;
}

std::string_view TakeLine(std::string_view* text) {
  const size_t length = text->find('\n');
  const std::string_view line = text->substr(0, length);
  *text = length == std::string_view::npos ? std::string_view{} : text->substr(length + 1);
  return Trim(line);
}

}  // namespace

std::optional<std::string_view> ProfileValue(std::string_view text, std::string_view section, std::string_view key) {
  bool inSection = false;
  while (!text.empty()) {
    const std::string_view line = TakeLine(&text);
    if (line.empty() || line[0] == ';') continue;
    if (line[0] == '[') {
      const size_t end = line.find(']');
      inSection = end != std::string_view::npos && SameName(Trim(line.substr(1, end - 1)), section);
      continue;
    }
    const size_t equals = line.find('=');
    if (!inSection || equals == std::string_view::npos) continue;
    if (SameName(Trim(line.substr(0, equals)), key)) return WithoutQuotes(Trim(line.substr(equals + 1)));
  }
  return std::nullopt;
}

}  // namespace qel::layer
