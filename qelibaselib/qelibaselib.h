/// @file
/// All that a host includes: the exports, the exported classes (in C++) and the Win32 names.
#pragma once
#include "qelibaselib/base/export.h"
#include "qelibaselib/file/file.h"
#include "qelibaselib/fileversion/fileversion.h"
#include "qelibaselib/log/day_history.h"
#include "qelibaselib/log/log_writer.h"
#include "qelibaselib/memory/memory.h"
#include "qelibaselib/modulestatus/modulestatus.h"
#include "qelibaselib/platform/win32.h"
#include "qelibaselib/settings/display.h"
#include "qelibaselib/settings/flush_statistics.h"
#include "qelibaselib/settings/memory_status.h"
#include "qelibaselib/settings/processor.h"
#include "qelibaselib/settings/settings.h"
#include "qelibaselib/settings/startup_checks.h"
#include "qelibaselib/winapiwrap/winapiwrap.h"

#ifdef __cplusplus
static_assert(sizeof(void*) == 4, "QelIBaseLib is a 32-bit library: build the host with -m32 (Linux) or for i686");
#include "qelibaselib/qelsystembenchmark/qelsystembenchmark.h"
#include "qelibaselib/watchthreadstat/watchthreadstat.h"
#endif
