/// @file
/// Allocation that does not fail at the first refusal: each failed attempt is logged with the state of memory, waits
/// 100 to 999 ms and is repeated until the time-out has run out. Any thread may call. The source position names the
/// caller in log lines and is otherwise not read.
#pragma once
#include <stddef.h>

#include "qelibaselib/base/export.h"
#include "qelibaselib/platform/win32.h"

QEL_FUNCTIONS_BEGIN
/// A block from the heap of at least `size` bytes (size classes of 16, 64, 256, 1024 bytes, then whole pages, 8 bytes
/// to spare; above 0xFFFFFFF7 the sum wraps and gives 16 bytes). To be freed with _MemFree only. Null when `timeoutMs`
/// have passed; INFINITE never gives up, and even 0 waits once after its one attempt. Every 10000th call checks the
/// heap and reports what it finds without failing.
QEL_API void* _MemAlloc(const char* sourceFile, int line, DWORD size, DWORD timeoutMs);

/// Frees a block of _MemAlloc; null is ignored. While the count of allocations stands at 0 or at a multiple of 10000
/// every call checks the heap.
QEL_API void _MemFree(const char* sourceFile, int line, void* block);

/// Committed read/write pages, sizes and retries as with _MemAlloc. To be freed with _VMemFree only. After a failure
/// the last error is the system's.
QEL_API void* _VMemAlloc(const char* sourceFile, int line, DWORD size, DWORD timeoutMs);

/// Gives back what _VMemAlloc gave. FALSE for null and, with the last error, for what is no base address of _VMemAlloc.
QEL_API BOOL _VMemFree(const char* sourceFile, int line, void* base);

/// To be installed as the host's new-handler: logs the state of memory with the position of the _MemAlloc under way on
/// this thread, waits, and returns 1, "try again". `size` is what the allocator was asked for; a std::new_handler,
/// which is not told it, calls this function with 0. Where the heap has nothing left for the line either, the line is
/// lost; the allocations for it call the handler once more and are given std::bad_alloc.
QEL_API int MemAllocHandler(size_t size);
QEL_FUNCTIONS_END
