/// @file
/// What marks an export. Functions reach the module's export table through qelibaselib/exports.txt, classes through
/// QEL_CLASS.
///
/// The functions can be called from C and from C++, by programs of any compiler for the target: QEL_FUNCTIONS_BEGIN and
/// QEL_FUNCTIONS_END stand around their declarations. A class belongs to the compiler that made the library, since
/// compilers lay classes out and name their members each in its own way: where QEL_CLASSES is not defined, making an
/// object of one is an error that says so.
#pragma once
#include "qelibaselib/platform/win32.h"

#ifdef __cplusplus
#define QEL_FUNCTIONS_BEGIN extern "C" {
#define QEL_FUNCTIONS_END }
#else
#define QEL_FUNCTIONS_BEGIN
#define QEL_FUNCTIONS_END
#endif

#if defined(__cplusplus) && !defined(_MSC_VER)
#define QEL_CLASSES
#elif defined(__cplusplus)
namespace qel {
/// Stands in the place of an exported class where the compiler is not the library's.
template <class Tag>
class ClassOfAnotherCompiler {
 public:
  template <class... Arguments>
  explicit ClassOfAnotherCompiler(const Arguments&...) {
    static_assert(
        sizeof(Tag*) == 0,
        "The classes of QelIBaseLib are for the compiler that built it (MinGW-w64 GCC) only; its functions are "
        "for any.");
  }
};
}  // namespace qel
#endif

#ifndef _WIN32
#define QEL_API __attribute__((visibility("default")))
#define QEL_CLASS __attribute__((visibility("default")))
#elif defined QEL_BUILD
#define QEL_API
#define QEL_CLASS __declspec(dllexport)
#else
#define QEL_API __declspec(dllimport)
#define QEL_CLASS __declspec(dllimport)
#endif
