// Calls whose answers are recorded once from Windows and compared with on Linux.
//
// What a call of the layer gives is what Windows gives. So the sections that call it say no answers: they print them,
// and script/record-calls runs the same sections as a plain Windows program and keeps what they print in
// test/platform/FOLDER.golden. On Linux each section is a test that compares its lines with that file.
//
//   RECORD(objects, Semaphores) {                     // in test/platform/objects/*_record.cpp
//     const Handle semaphore = CreateSemaphoreW(nullptr, 2, 3, nullptr);
//     CALL(ReleaseSemaphore(semaphore, 2, nullptr));  // a line "ReleaseSemaphore(semaphore, 2, nullptr) = 0 (298)"
//     record.Line("waits");                           // a line "waits: 0 = 0, 1 = 258" of several calls
//     for (const int i : {0, 1}) ADD(i, WaitForSingleObject(semaphore, 0));
//   }
//
// The number in brackets is the last error where the call has set one. Handles and pointers are "null", "invalid" or
// "given", so that a line is the same in each run. After a change: script/record-calls.
#pragma once
#include <initializer_list>
#include <string>
#include <type_traits>
#include <utility>

#include "qelibaselib/platform/win32.h"

namespace qel::test {

inline constexpr DWORD kUntouched = 0x2BAD;  // the last error before each call

// Numbers that are constants of different types.
using Numbers = std::initializer_list<DWORD>;

// A number that a reader knows in hexadecimal.
struct Hex {
  DWORD value;
};

class Record {
 public:
  // Begins a line that names its calls.
  template <class... Words>
  Record& Line(const Words&... words) {
    EndLine();
    ((line_ += (line_.empty() ? "" : " ") + Text(words)), ...);
    separator_ = line_.empty() ? "" : ": ";
    return *this;
  }
  // Adds the answer of a call to the line. Returns it.
  template <class Label, class Call>
  auto Add(const Label& label, Call call) {
    SetLastError(kUntouched);
    auto result = call();
    AddAnswer(Text(label), Text(result), GetLastError());
    return result;
  }
  // The same on a line of its own.
  template <class Call>
  auto AddLine(const char* label, Call call) {
    EndLine();
    return Add(label, call);
  }
  // A fact that is no call.
  template <class Label, class Value>
  void Note(const Label& label, const Value& value) {
    AddAnswer(Text(label), Text(value), kUntouched);
  }
  std::string Finish() {
    EndLine();
    return std::move(lines_);
  }

 private:
  static std::string Text(const char* text) { return text; }
  static std::string Text(const std::string& text) { return '"' + text + '"'; }
  static std::string Text(const wchar_t* text);
  static std::string Text(const std::wstring& text) { return Text(text.c_str()); }
  static std::string Text(Hex number);
  static std::string Text(const void* pointer);
  template <class Number>
  requires std::is_arithmetic_v<Number>
  static std::string Text(Number number) { return std::to_string(number); }

  void AddAnswer(const std::string& label, const std::string& answer, DWORD error);
  void EndLine();

  std::string lines_, line_;
  const char* separator_ = "";
};

using RecordSection = void (*)(Record& record);
struct RecordRegistration {
  RecordRegistration(const char* folder, const char* name, RecordSection section);
};

}  // namespace qel::test

#define RECORD(folder, name)                                                                        \
  static void Record##name(qel::test::Record& record);                                              \
  static const qel::test::RecordRegistration g_registerRecord##name(#folder, #name, &Record##name); \
  static void Record##name(qel::test::Record& record)
#define CALL(...) record.AddLine(#__VA_ARGS__, [&] { return __VA_ARGS__; })
#define ADD(label, ...) record.Add(label, [&] { return __VA_ARGS__; })
