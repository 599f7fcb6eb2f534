// fuzz-sources: qellog/record/log_line.cpp qellog/record/timestamp.cpp qellog/record/message_facts.cpp qellog/record/error_names.cpp qellog/text/visible_text.cpp qellog/text/decode_text.cpp qellog/text/utf8.cpp
// One line of a log, taken apart and made visible. Checked beside what the sanitizers see: a line that is taken apart
// holds its fields in order, and nothing that a terminal acts on is left.
#include <cstdlib>

#include "qellog/record/log_line.h"
#include "qellog/record/message_facts.h"
#include "qellog/text/utf8.h"
#include "qellog/text/visible_text.h"

namespace {

using namespace qellog;

void Require(bool holds) {
  if (!holds) std::abort();
}

void RequireVisible(std::string_view bytes, LineEnds lineEnds) {
  const std::string text = VisibleText(bytes, lineEnds);
  for (std::string_view rest = text; !rest.empty();) {
    const Utf8Character character = FirstCharacter(rest);
    Require(character.bytes > 0);
    Require(character.codePoint == '\n' ? lineEnds == LineEnds::kKept : !IsInvisible(character.codePoint));
    rest.remove_prefix(character.bytes);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  RequireVisible(bytes, LineEnds::kKept);
  RequireVisible(bytes, LineEnds::kVisible);
  FindSecondLine(bytes);
  if (const auto line = ParseLine(bytes)) {
    Require(line->program.data() < line->sourceFile.data() + line->sourceFile.size() + 1);
    Require(line->message.data() + line->message.size() == bytes.data() + bytes.size());
    Require(MessageOf(*line).size() <= line->message.size());
    ErrorOf(line->message);
    WaitOf(line->message);
    if (const auto retry = RetryOf(line->message)) Require(retry->function.size() <= line->message.size());
  }
  return 0;
}
