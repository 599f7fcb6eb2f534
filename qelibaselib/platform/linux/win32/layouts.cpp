// The records that callers and the layer hand to each other are as long as on 32-bit Windows. Those that hold wide text
// are not among them: a wide character has four bytes here.
#include "qelibaselib/platform/linux/win32/windows.h"

static_assert(sizeof(void*) == 4, "this layer is for 32-bit x86");
static_assert(sizeof(SYSTEMTIME) == 16);
static_assert(sizeof(OVERLAPPED) == 20);
static_assert(sizeof(CONTEXT) == 716 && sizeof(EXCEPTION_RECORD) == 80);
static_assert(sizeof(STARTUPINFOA) == 68);
static_assert(sizeof(MEMORYSTATUSEX) == 64);
static_assert(sizeof(SYSTEM_INFO) == 36);
static_assert(sizeof(STACKFRAME) == 164);
static_assert(sizeof(IMAGEHLP_SYMBOL) == 24);
static_assert(sizeof(MEMORY_BASIC_INFORMATION) == 28);
