/// @file
/// All that a host includes: the exports, the exported classes and the Win32 names.
#pragma once
#include "file/file.h"
#include "fileversion/fileversion.h"
#include "memory/memory.h"
#include "modulestatus/modulestatus.h"
#include "platform/win32.h"
#include "qelibaselib/export.h"
#include "qelibaselib/log_writer.h"
#include "qelibaselib/processor.h"
#include "qelibaselib/settings.h"
#include "qelibaselib/startup_checks.h"
#include "qelsystembenchmark/qelsystembenchmark.h"
#include "watchthreadstat/watchthreadstat.h"
#include "winapiwrap/winapiwrap.h"
