/// @file
/// Mends a log file whose last line has no end. The caller holds the mutex of the file.
#pragma once

namespace qel {

/// Ends the last line when it has no end: a writer that is killed inside the write leaves one so.
void EndCutLine(const wchar_t* path);
/// Takes away what stands behind the last line end: a full disk took only a part of a line.
void RemoveCutLine(const wchar_t* path);

}  // namespace qel
