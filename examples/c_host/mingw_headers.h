/* For clang in its MSVC mode with MinGW's headers, which then take it for a compiler that understands less than it
 * does. */
#include <_mingw.h>
#undef __MINGW_NOTHROW
#undef __MINGW_ATTRIB_NORETURN
#undef __MINGW_ATTRIB_DEPRECATED
#define __MINGW_NOTHROW
#define __MINGW_ATTRIB_NORETURN
#define __MINGW_ATTRIB_DEPRECATED
#define __buildmemorybarrier() \
  { __sync_synchronize(); }
