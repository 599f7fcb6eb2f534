/// @file
/// The summary as one screen of text.
#pragma once
#include <string>

#include "qellog/output/output.h"
#include "qellog/summary/summary.h"

namespace qellog {

std::string TextOfSummary(const Summary& summary, const Colours& colours);

}  // namespace qellog
