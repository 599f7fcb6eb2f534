/// @file
/// An exception in words.
#pragma once
#include <string>

#include "qellog/report/exception_report.h"

namespace qellog {

/// "read of address 0 in SumPixels". The function's name is bytes of the report.
std::string CauseOf(const ExceptionReport& report);
/// "access violation" or the like; the number when it is no code that is known here.
std::string ExceptionName(std::uint32_t code);
/// The names of the first frames, "SumPixels < MeasureBrightness < main"; frames of the library's guard are left out.
std::string TopFrames(const ExceptionReport& report, std::size_t count);
/// 0xc0000005; the short form without leading zeros.
std::string ShortHexText(std::uint32_t value);
std::string HexText(std::uint32_t value);

}  // namespace qellog
