/// @file
/// The rule of a time zone as one line of text, as POSIX has it for the variable TZ: "CET-1CEST,M3.5.0,M10.5.0/3".
#pragma once
#include <optional>
#include <string_view>

#include "qelibaselib/platform/linux/system/zone_period.h"

namespace qel::layer {

/// What the rule says about `utc`. Empty when the text is no rule. A zone with summer time whose days are not told
/// changes as the C library has it: on the second Sunday of March and the first of November.
std::optional<ZonePeriod> FindPeriodInRule(std::string_view rule, int64_t utc);

}  // namespace qel::layer
