/// @file
/// Whether the calling thread writes a report of a fault.
#pragma once
#include <cstdint>

namespace qel::layer {

/// Reports that the thread is in. faults/report_scope.cpp counts.
inline thread_local constinit uint32_t t_reportDepth __attribute__((visibility("hidden"))) = 0;

}  // namespace qel::layer
