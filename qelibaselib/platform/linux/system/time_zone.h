/// @file
/// How far local time is from UTC.
///
/// The problem: each log line tells the local time. The C library's answer takes a lock, which a fault inside it or a
/// fork at the wrong moment would leave held for every later line; it is also blind to a change of the variable TZ.
///
/// The idea: the variable is looked at for each line, which needs no system call, and the zone's file is read by this
/// room itself. What was found is kept for the minute in which it was found, and only for the same text of TZ. So a
/// change of TZ and a change to or from summer time are seen at once, and another file behind /etc/localtime within a
/// minute.
///
/// The invariant: what is kept are two words that belong together only when they fit each other (KeptOffset), so there
/// is no lock, and a thread that ends in the middle of writing them leaves nothing that another one waits for.
#pragma once
#include <ctime>

#include "qelibaselib/platform/linux/system/zone_period.h"

namespace qel::layer {

/// Seconds to add to `utc` for the local time then. 0 where the zone is not told, cannot be read or makes no sense.
int32_t FindSecondsEast(time_t utc);

/// The same without what is kept: `zone` is the text of TZ, null when it is not set. A name is a file below the folder
/// of zones or an absolute path, as for the C library; what is no file is taken for a rule.
ZonePeriod FindZonePeriod(const char* zone, time_t utc);

}  // namespace qel::layer
