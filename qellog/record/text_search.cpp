#include "qellog/record/text_search.h"

#include <emmintrin.h>

#include <cstring>

namespace qellog {
namespace {

constexpr char kCaseBit = 0x20;

bool IsLetter(char character) {
  const char lower = static_cast<char>(character | kCaseBit);
  return lower >= 'a' && lower <= 'z';
}

char Lower(char character) { return IsLetter(character) ? static_cast<char>(character | kCaseBit) : character; }

/// How often a byte stands in logs, by rank: the first one is the most frequent. Bytes that are not named are rare.
std::size_t Commonness(char character) {
  constexpr std::string_view kCommon = "0, 12eor/3tai4n5:s6lcpd7m8u9.=xLMfghE()_VFCTRWSOAINPb";
  const std::size_t rank = kCommon.find(character);
  return rank == kCommon.npos ? 0 : kCommon.size() - rank;
}

/// Bit i is set when byte i of the sixteen at `bytes` is the value.
class Sixteen {
 public:
  Sixteen(char value, char mask) : value_(_mm_set1_epi8(value)), mask_(_mm_set1_epi8(mask)) {}
  __m128i At(const char* bytes) const {
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
    return _mm_cmpeq_epi8(_mm_or_si128(block, mask_), value_);
  }

 private:
  __m128i value_;
  __m128i mask_;
};

}  // namespace

TextSearch::TextSearch(std::string text, LetterCase letterCase) : text_(std::move(text)), letterCase_(letterCase) {
  if (letterCase_ == LetterCase::kIgnored)
    for (char& character : text_) character = Lower(character);
  if (text_.empty()) return;
  first_ = RarestBut(text_.size());
  second_ = text_.size() == 1 ? first_ : RarestBut(first_.position);
}

TextSearch::Anchor TextSearch::RarestBut(std::size_t excluded) const {
  std::size_t best = excluded == 0 ? 1 : 0;
  for (std::size_t i = best + 1; i < text_.size(); ++i) {
    if (i != excluded && Commonness(text_[i]) < Commonness(text_[best])) best = i;
  }
  const bool bothCases = letterCase_ == LetterCase::kIgnored && IsLetter(text_[best]);
  return {best, text_[best], bothCases ? kCaseBit : '\0'};
}

bool TextSearch::StandsAt(const char* bytes) const {
  if (letterCase_ == LetterCase::kExact) return std::memcmp(bytes, text_.data(), text_.size()) == 0;
  for (std::size_t i = 0; i < text_.size(); ++i)
    if (Lower(bytes[i]) != text_[i]) return false;
  return true;
}

std::optional<std::size_t> TextSearch::Find(std::string_view bytes) const {
  constexpr std::size_t kStep = 64;
  if (text_.empty()) return 0;
  if (bytes.size() < text_.size()) return std::nullopt;
  const std::size_t places = bytes.size() - text_.size() + 1;
  const Sixteen first(first_.value, first_.mask);
  const Sixteen second(second_.value, second_.mask);
  const char* const firstBytes = bytes.data() + first_.position;
  const char* const secondBytes = bytes.data() + second_.position;
  std::size_t place = 0;
  for (; place + kStep <= places; place += kStep) {
    __m128i both[4];
    for (std::size_t i = 0; i < 4; ++i)
      both[i] = _mm_and_si128(first.At(firstBytes + place + i * 16), second.At(secondBytes + place + i * 16));
    const __m128i any = _mm_or_si128(_mm_or_si128(both[0], both[1]), _mm_or_si128(both[2], both[3]));
    if (_mm_movemask_epi8(any) == 0) continue;
    for (std::size_t i = 0; i < 4; ++i) {
      for (auto bits = static_cast<unsigned>(_mm_movemask_epi8(both[i])); bits != 0; bits &= bits - 1) {
        const std::size_t found = place + i * 16 + static_cast<std::size_t>(__builtin_ctz(bits));
        if (StandsAt(bytes.data() + found)) return found;
      }
    }
  }
  for (; place < places; ++place)
    if (StandsAt(bytes.data() + place)) return place;
  return std::nullopt;
}

}  // namespace qellog
