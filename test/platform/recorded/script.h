// Calls as lines of text, with what Windows gives for each.
//
// What a call of the layer gives is what Windows gives. So its tests are lists of calls,
// test/platform/recorded/*.golden: script/record-calls runs them as a plain Windows program and writes the answers; on
// Linux each section is a test that makes the same calls and compares. A new test is a line without an answer; then
// script/record-calls fills it in. Only linux.golden is written by hand: it is for what Windows does not have.
//
//   == Semaphores                                              a section, with a folder of its own as the current one
//   s: CreateSemaphoreW null 2 3 null -> given (0)             s is its handle, closed at the end of the section
//   ReleaseSemaphore s [2 1] * -> 0 (298) *99, 1 *2            two calls; * is a place for a value, shown behind
//   thread WaitForSingleObject s 0 -> 0                        on another thread; "thread {" ... "}" for several lines
//
// A number in brackets is the last error where the call has set one. In a text {9} is a character's code, {u} a name
// that nobody else uses, {here} the section's folder, {5*n} five times n, {rest} what fills {here}\ up to the longest
// path, {rest12} twelve fewer. A variable may have an offset: block+4096; a pointer is shown so too, or as null,
// invalid or given. @2 is an OVERLAPPED with that offset. A line that begins with a blank continues the one before it.
#pragma once
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "qelibaselib/platform/win32.h"

namespace qel::test {

class CallScope;
using RecordedCall = std::function<std::string(CallScope& scope, const std::vector<std::string>& arguments)>;
// All calls that a line may name; the first argument is the variable for what the call gives, or empty.
std::map<std::string, RecordedCall>& RecordedCalls();

struct Section {
  std::string name;
  std::vector<std::string> lines;
};
std::vector<Section> ReadSections(const std::string& text);
// The line without its answer.
std::string QuestionOf(const std::string& line);
// The lines with the answers that the calls give here.
std::vector<std::string> AskAll(const Section& section);

}  // namespace qel::test
