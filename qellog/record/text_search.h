/// @file
/// Finds a text in blocks of bytes about as fast as memory gives them: 16 places at a time are looked at for the two
/// bytes of the text that logs hold least often, and only where both stand is the whole text compared.
#pragma once
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace qellog {

enum class LetterCase { kExact, kIgnored };

class TextSearch {
 public:
  TextSearch(std::string text, LetterCase letterCase);
  const std::string& Text() const { return text_; }
  /// The place of the first occurrence. An empty text is found everywhere. Without regard to case ASCII letters alone
  /// are the same in both.
  std::optional<std::size_t> Find(std::string_view bytes) const;
  bool IsIn(std::string_view bytes) const { return Find(bytes).has_value(); }

 private:
  /// A byte of the text and where it stands.
  struct Anchor {
    std::size_t position = 0;
    char value = 0;
    char mask = 0;  ///< what is set in a byte before it is compared: the bit in which a letter's cases differ
  };
  Anchor RarestBut(std::size_t excluded) const;
  bool StandsAt(const char* bytes) const;

  std::string text_;
  LetterCase letterCase_;
  Anchor first_;
  Anchor second_;
};

}  // namespace qellog
