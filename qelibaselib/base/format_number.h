/// @file
/// Numbers and pointers of a printf format.
#pragma once
#include <cstdint>

#include "qelibaselib/base/format_conversion.h"
#include "qelibaselib/base/text_sink.h"

namespace qel {

void PutSigned(TextSink& sink, const FormatConversion& conversion, std::int64_t value);
void PutUnsigned(TextSink& sink, const FormatConversion& conversion, std::uint64_t value);
/// The flag # sees to it that the number begins with a zero.
void PutOctal(TextSink& sink, const FormatConversion& conversion, std::uint64_t value);
/// The flag # puts 0x, or 0X for upper case, in front of every number but 0.
void PutHexadecimal(TextSink& sink, const FormatConversion& conversion, std::uint64_t value, bool upperCase);
/// Eight upper-case digits.
void PutPointer(TextSink& sink, const FormatConversion& conversion, const void* value);
/// A number with a point, by the C library; width and precision are cut to 160.
void PutFloating(TextSink& sink, const FormatConversion& conversion, double value);

}  // namespace qel
