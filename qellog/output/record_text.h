/// @file
/// Records as lines for `cat` and `follow`.
#pragma once
#include <string>

#include "qellog/folder/merged_records.h"
#include "qellog/output/output.h"

namespace qellog {

/// "2026/11/25 00:43:37.721 file  20% viewer[25403:25404] viewer.cpp(12): message", with its line end. What a terminal
/// would act on is visible.
std::string TextOfRecord(const FileRecord& record, const Colours& colours);

/// The names of the columns, and a record in them. What a spreadsheet would take as a formula has an apostrophe before.
std::string CsvHeader();
std::string CsvOfRecord(const FileRecord& record);

}  // namespace qellog
