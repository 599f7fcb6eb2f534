/// @file
/// Reports as JSON values.
#pragma once
#include <nlohmann/json.hpp>
#include <string_view>

#include "qellog/report/report_list.h"

namespace qellog {

using Json = nlohmann::ordered_json;

/// "2024-03-05T14:07:09.042", local time without a zone.
std::string IsoTime(Timestamp time);
Json ReportAsJson(const ReportEntry& entry, std::string_view text);

}  // namespace qellog
