/// @file
/// Texts and characters of a printf format.
#pragma once
#include "qelibaselib/base/format_conversion.h"
#include "qelibaselib/base/text_sink.h"

namespace qel {

/// A null text prints "(null)". Nothing is read behind the precision.
void PutNarrowText(TextSink& sink, const FormatConversion& conversion, const char* text);

/// The same for wide text in its narrow form. The precision counts narrow bytes; a character that does not fit whole is
/// left out with all that follows.
void PutWideText(TextSink& sink, const FormatConversion& conversion, const wchar_t* text);

void PutCharacter(TextSink& sink, const FormatConversion& conversion, char character);
void PutWideCharacter(TextSink& sink, const FormatConversion& conversion, wchar_t character);

}  // namespace qel
