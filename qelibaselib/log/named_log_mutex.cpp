#include "qelibaselib/log/named_log_mutex.h"

#include "qelibaselib/base/bounded_text.h"
#include "qelibaselib/winapiwrap/winapiwrap.h"

namespace qel {
namespace {
constexpr DWORD kUserNameCharacters = 257;
}

LogMutexName::LogMutexName(const wchar_t* stem) {
  wchar_t user[kUserNameCharacters] = L"$$";
  DWORD size = kUserNameCharacters;
  GetUserNameW(user, &size);
  user[kUserNameCharacters - 1] = L'\0';
  WideText(text) << L"Local\\" << stem << L"_" << user;
}

NamedLogMutex::NamedLogMutex(SourcePosition position, const wchar_t* stem)
    : mutex_(CreateMutexX(position.line, position.sourceFile, nullptr, FALSE, LogMutexName(stem).text)) {}

NamedLogMutex::~NamedLogMutex() {
  if (mutex_) ReleaseMutex(mutex_.Get());  // also when it was not acquired: that fails without effect
}

bool NamedLogMutex::Acquire(DWORD timeoutMs) {
  const DWORD result = WaitForSingleObject(mutex_.Get(), timeoutMs);
  abandoned_ = result == WAIT_ABANDONED;
  return result == WAIT_OBJECT_0 || abandoned_;
}

}  // namespace qel
