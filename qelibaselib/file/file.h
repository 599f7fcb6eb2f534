/// @file
/// File operations: all exports of this folder.
///
/// What holds for all of them:
/// - `line` and `sourceFile` name the caller's place in its source. They are only copied into log lines.
/// - The result is that of the Win32 call named. The last error is that call's own, put back after the logging; where
///   it is 0, or where a function says otherwise, the last error is left as it is.
/// - Paths are copied into 260 characters (longer ones are cut to 259, null is the empty path) and lose one pair of
///   enclosing double quotes. Log lines show the caller's text; a null pointer reads "NULL".
/// - Every failure writes a line to the file-operation channel while the caller waits.
/// - No exception leaves them. A fault, of a bad pointer for instance, is logged by the guard, and the function returns
///   what its result was so far, in general its failure value.
/// - They may be called from any thread; nothing is shared but the log.
/// - The no-cache decision would have small files written and flushed through views while memory is plentiful: files
///   below the size and a memory load below the percentage of VemoSetNoCacheFlushLimit. It is switched off for good, so
///   that every write is a WriteFile and every flush is done.
#pragma once
#include "qelibaselib/file/bulk_transfer.h"
#include "qelibaselib/file/directory_tree.h"
#include "qelibaselib/file/flush_calls.h"
#include "qelibaselib/file/mapping_calls.h"
#include "qelibaselib/file/object_file.h"
#include "qelibaselib/file/plain_calls.h"
#include "qelibaselib/file/retrying_calls.h"
