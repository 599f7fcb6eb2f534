/// @file
/// Everything that the reader knows as texts of JSON, for `json`, `--output json` and the page. Each function gives one
/// value. docs/qellog.md describes the fields.
#pragma once
#include <string>
#include <vector>

#include "qellog/report/report_list.h"
#include "qellog/summary/summary.h"

namespace qellog {

/// Raised when a field is renamed, removed or gets another meaning; fields may be added.
inline constexpr int kJsonSchemaVersion = 1;

std::string JsonOfRecord(const FileRecord& record);
std::string JsonOfSummary(const Summary& summary);
std::string JsonOfReport(const ReportEntry& entry, std::string_view text);
std::string JsonOfDamage(const Damage& damage);
/// A text with its quotation marks.
std::string JsonOfText(std::string_view text);

/// Makes a JSON text fit for a script element of a page: no "<", ">" or "&" is left.
std::string EmbeddableJson(std::string_view json);

}  // namespace qellog
