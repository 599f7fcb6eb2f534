/// @file
/// What marks an export. Functions reach the module's export table through qelibaselib/exports.txt, classes through
/// QEL_CLASS.
#pragma once
#include "qelibaselib/platform/win32.h"

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
