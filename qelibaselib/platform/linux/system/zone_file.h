/// @file
/// A file of a time zone as the zone compiler writes it (TZif, versions 1 to 4).
#pragma once
#include <optional>
#include <string_view>

#include "qelibaselib/platform/linux/system/zone_period.h"

namespace qel::layer {

/// What the file says about `utc`: in its list of changes, and behind the last of them in the rule at its end. Empty
/// when the bytes are no such file. Leap seconds are not looked at.
std::optional<ZonePeriod> FindPeriodInZoneFile(std::string_view bytes, int64_t utc);

}  // namespace qel::layer
