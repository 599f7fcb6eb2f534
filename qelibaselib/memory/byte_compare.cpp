#include "qelibaselib/memory/byte_compare.h"

#include <emmintrin.h>

#include <algorithm>
#include <cstdint>
#include <utility>

namespace qel::memory {
namespace {

constexpr DWORD kPageBytes = 4096;
constexpr DWORD kLaneBytes = sizeof(__m128i);
constexpr DWORD kLanes = 8;
constexpr DWORD kBlockBytes = kLanes * kLaneBytes;

DWORD BytesToPageEnd(const BYTE* address) {
  return kPageBytes - (reinterpret_cast<uintptr_t>(address) & (kPageBytes - 1));
}

__m128i EqualLanes(const BYTE* first, const BYTE* second) {
  return _mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(first)),
                        _mm_loadu_si128(reinterpret_cast<const __m128i*>(second)));
}

template <size_t... kLane>
bool BlocksEqual(const BYTE* first, const BYTE* second, std::index_sequence<kLane...>) {
  __m128i equal = EqualLanes(first, second);
  ((equal = _mm_and_si128(equal, EqualLanes(first + kLane * kLaneBytes, second + kLane * kLaneBytes))), ...);
  return _mm_movemask_epi8(equal) == 0xFFFF;
}

// How many bytes from the start on are equal.
DWORD EqualBytes(const BYTE* first, const BYTE* second, DWORD size) {
  DWORD equal = 0;
  while (size - equal >= kBlockBytes && BlocksEqual(first + equal, second + equal, std::make_index_sequence<kLanes>{}))
    equal += kBlockBytes;
  while (size - equal >= kLaneBytes && _mm_movemask_epi8(EqualLanes(first + equal, second + equal)) == 0xFFFF)
    equal += kLaneBytes;
  while (equal < size && first[equal] == second[equal]) ++equal;
  return equal;
}

}  // namespace

int CompareBytes(const void* firstBuffer, const void* secondBuffer, DWORD size) {
  const auto* first = static_cast<const BYTE*>(firstBuffer);
  const auto* second = static_cast<const BYTE*>(secondBuffer);
  while (size > 0) {
    const DWORD inPage = std::min({size, BytesToPageEnd(first), BytesToPageEnd(second)});
    const DWORD equal = EqualBytes(first, second, inPage);
    if (equal != inPage) return first[equal] > second[equal] ? 1 : -1;
    first += inPage;
    second += inPage;
    size -= inPage;
  }
  return 0;
}

}  // namespace qel::memory
