/// @file
/// The unit of the sizes in the reports.
#pragma once
#include "qelibaselib/platform/win32.h"

namespace qel::report {

inline constexpr DWORD kBytesPerMebibyte = 1ul << 20;

/// Whole MiB; the rest is dropped.
template <class Integer>
constexpr Integer Mebibytes(Integer bytes) {
  return bytes >> 20;
}

}  // namespace qel::report
