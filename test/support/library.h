// What nearly every test of the library needs: GoogleTest, the exports, and the helpers of this folder that stand for a
// log folder, a second process, a call that fails and so on. Each helper is described in its own header.
#pragma once
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "qelibaselib/base/scoped_handles.h"
#include "qelibaselib/qelibaselib.h"
#include "test/support/child_process.h"
#include "test/support/exhaustion.h"
#include "test/support/failing_calls.h"
#include "test/support/fake_clock.h"
#include "test/support/log_folder.h"
#include "test/support/named_object.h"
#include "test/support/open_handles.h"
#include "test/support/page_buffer.h"
#include "test/support/sanitizer.h"
#include "test/support/scratch_folder.h"
#include "test/support/target.h"
#include "test/support/text.h"
#include "test/support/threads.h"

// The place that a host passes as its own.
#define HOST 4711, "host.cpp"

namespace qel::test {
namespace fs = std::filesystem;
}  // namespace qel::test
