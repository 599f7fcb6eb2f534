// What the lines of a section share: variables, and the values that their words stand for.
#pragma once
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <type_traits>
#include <vector>

#include "qelibaselib/platform/win32.h"
#include "test/support/scratch_folder.h"

namespace qel::test {

using Closer = void (*)(void* value);
inline void ReleaseView(void* view) { UnmapViewOfFile(view); }
inline void ReleaseBlock(void* block) { VirtualFree(block, 0, MEM_RELEASE); }

// In quotes, with {9} for a character that is none.
std::string Quoted(const std::wstring& text);
std::string Quoted(const std::string& text);

class CallScope {
 public:
  CallScope();
  CallScope(const CallScope&) = delete;
  CallScope& operator=(const CallScope&) = delete;
  ~CallScope();

  // The value of a word for a parameter of this type.
  template <class Type>
  Type Value(const std::string& word) {
    if constexpr (std::is_same_v<Type, const wchar_t*>)
      return word == "null" ? nullptr : Keep(WideText(word));
    else if constexpr (std::is_same_v<Type, const char*>)
      return word == "null" ? nullptr : Keep(NarrowText(word));
    else if constexpr (std::is_same_v<Type, wchar_t*>)
      return word == "null" ? nullptr : WideBuffer(word);
    else if constexpr (std::is_same_v<Type, char*>)
      return word == "null" ? nullptr : NarrowBuffer(word);
    else if constexpr (std::is_arithmetic_v<Type>)
      return static_cast<Type>(Number(word));
    else if constexpr (std::is_same_v<Type, LARGE_INTEGER>)
      return Large(word);
    else if constexpr (std::is_same_v<Type, const LARGE_INTEGER*>)
      return &larges_.emplace_back(Large(word));
    else if constexpr (std::is_same_v<Type, LARGE_INTEGER*>)
      return word == "null" ? nullptr : LargePlace();
    else if constexpr (std::is_same_v<Type, DWORD*> || std::is_same_v<Type, LONG*>)
      return word == "null" ? nullptr : reinterpret_cast<Type>(Place());
    else if constexpr (std::is_same_v<Type, OVERLAPPED*>)
      return Offset(word);
    else if constexpr (std::is_same_v<Type, void**>)
      return &variables_[word.substr(1)].value;  // "*name"
    else if constexpr (std::is_same_v<Type, void* const*>)
      return Handles(word);
    else if constexpr (std::is_same_v<std::remove_cv_t<std::remove_pointer_t<Type>>, void>)
      return Pointer(word);
    else
      return static_cast<Type>(nullptr);  // what no line needs
  }
  std::wstring WideText(const std::string& word) const;
  std::string NarrowText(const std::string& word) const;
  // A pointer, also as a place in a view or block.
  std::string Describe(const void* pointer) const;
  // What the calls of a line have written.
  std::string TakeWritten();
  void SetVariable(const std::string& name, void* value, Closer closer);
  void Forget(void* value);  // it was closed by a line
  const std::filesystem::path& Folder() const { return folder_.Path(); }

 private:
  struct Variable {
    void* value = nullptr;
    Closer closer = nullptr;
  };
  template <class Text>
  auto* Keep(Text text) {
    if constexpr (std::is_same_v<Text, std::string>)
      return narrow_.emplace_back(std::move(text)).c_str();
    else
      return wide_.emplace_back(std::move(text)).c_str();
  }
  LONGLONG Number(const std::string& word) const;
  LARGE_INTEGER Large(const std::string& word) const;
  wchar_t* WideBuffer(const std::string& word);
  char* NarrowBuffer(const std::string& word);
  DWORD* Place();
  LARGE_INTEGER* LargePlace();
  OVERLAPPED* Offset(const std::string& word);
  void* const* Handles(const std::string& word);
  void* Pointer(const std::string& word) const;

  ScratchFolder folder_;
  std::filesystem::path before_;
  std::wstring unique_;
  std::map<std::string, Variable> variables_;
  std::vector<Variable> replaced_;
  std::deque<std::wstring> wide_;
  std::deque<std::string> narrow_;
  std::deque<LARGE_INTEGER> larges_;
  std::deque<OVERLAPPED> overlapped_;
  std::deque<std::vector<void*>> handles_;
  std::vector<std::function<std::string()>> written_;
};

}  // namespace qel::test
