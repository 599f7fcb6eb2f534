/// @file
/// A range of bytes as the kernel's file locks take it.
#pragma once
#include <fcntl.h>

namespace qel::layer {

inline struct flock LockRange(short type, off_t start, off_t length) {
  struct flock range = {};
  range.l_type = type;
  range.l_whence = SEEK_SET;
  range.l_start = start;
  range.l_len = length;
  return range;
}

}  // namespace qel::layer
