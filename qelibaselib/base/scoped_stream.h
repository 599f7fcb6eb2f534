/// @file
/// The owner of a stream of the C library.
#pragma once
#include <cstdio>
#include <memory>

#include "qelibaselib/base/saved_error.h"

namespace qel {

struct CloseStream {
  void operator()(std::FILE* stream) const {
    const PreserveLastError keep;
    std::fclose(stream);
  }
};

/// Null when the stream could not be opened. The end of the scope closes it and keeps the last error.
using ScopedStream = std::unique_ptr<std::FILE, CloseStream>;

}  // namespace qel
