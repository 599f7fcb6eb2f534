// Every export with the 1st, 2nd, ... call of the system failing, once and for ever: it says what is true, leaves the
// error of the call, and leaves nothing open.
#pragma once
#include "test/file/transfer_test.h"
#include "test/support/failing_calls.h"

namespace qel::test {
namespace fs = std::filesystem;

// The calls that the file operations are made of, and those of the log writer under them. Left out are those that give
// something back: a handle that the system does not close stays open.
inline const std::vector<FailingCall> kCalls = {
    FAILING_CALL(CreateFileW, ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE),
    FAILING_CALL(ReadFile, ERROR_READ_FAULT, FALSE),
    FAILING_CALL(WriteFile, ERROR_DISK_FULL, FALSE),
    FAILING_CALL(GetFileSizeEx, ERROR_INVALID_FUNCTION, FALSE),
    FAILING_CALL(SetFilePointerEx, ERROR_INVALID_FUNCTION, FALSE),
    FAILING_CALL(FindFirstFileW, ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE),
    FAILING_CALL(FindNextFileW, ERROR_READ_FAULT, FALSE),
    FAILING_CALL(DeleteFileW, ERROR_ACCESS_DENIED, FALSE),
    FAILING_CALL(MoveFileW, ERROR_NOT_SAME_DEVICE, FALSE),
    FAILING_CALL(CopyFileW, ERROR_DISK_FULL, FALSE),
    FAILING_CALL(GetFileAttributesW, ERROR_ACCESS_DENIED, INVALID_FILE_ATTRIBUTES),
    FAILING_CALL(SetFileAttributesW, ERROR_ACCESS_DENIED, FALSE),
    FAILING_CALL(CreateDirectoryExW, ERROR_ACCESS_DENIED, FALSE),
    FAILING_CALL(GetFullPathNameW, ERROR_ACCESS_DENIED, 0ul),
    FAILING_CALL(RemoveDirectoryW, ERROR_ACCESS_DENIED, FALSE),
    FAILING_CALL(GetTempFileNameW, ERROR_ACCESS_DENIED, 0u),
    FAILING_CALL(GetTempFileNameA, ERROR_ACCESS_DENIED, 0u),
    FAILING_CALL(SHCreateDirectoryExW, ERROR_ACCESS_DENIED, 5),
    FAILING_CALL(PathCombineW, ERROR_INSUFFICIENT_BUFFER, nullptr),
    FAILING_CALL(CreateFileMappingW, ERROR_NOT_ENOUGH_MEMORY, nullptr),
    FAILING_CALL(OpenFileMappingW, ERROR_ACCESS_DENIED, nullptr),
    FAILING_CALL(MapViewOfFile, ERROR_NOT_ENOUGH_MEMORY, nullptr),
    FAILING_CALL(FlushViewOfFile, ERROR_WRITE_FAULT, FALSE),
    FAILING_CALL(VirtualQuery, ERROR_INVALID_PARAMETER, 0ul),
    FAILING_CALL(GlobalMemoryStatusEx, ERROR_INVALID_PARAMETER, FALSE),
    FAILING_CALL(WaitForSingleObject, ERROR_INVALID_HANDLE, WAIT_FAILED),
    FAILING_CALL(GetUserNameW, ERROR_INSUFFICIENT_BUFFER, FALSE),
    FAILING_ONCE(CreateMutexW, ERROR_ACCESS_DENIED, nullptr),
};

class FailingCalls : public FileTest {
 protected:
  // An export as the driver sees it.
  struct Export {
    std::function<void()> prepare;  // makes things as they are before the call
    std::function<bool()> call;     // whether it reports success
    std::function<bool()> holds;    // whether what a success promises is there
    // The calls without which there is no success, where their error is the last error then.
    std::vector<std::string> needs;
    bool keepsError = true;
  };

  void Drive(const Export& tested) {
    FakeClock clock;
    // No flush takes longer than all before it, which would be logged, once.
    const StandIn<"QueryPerformanceCounter", decltype(&::QueryPerformanceCounter)> noTimePasses{
        [](int, LARGE_INTEGER* count) {
          count->QuadPart = 0;
          return TRUE;
        }};
    tested.prepare();
    tested.call();  // what is made once in a process is made now
    FailEachCall(kCalls, [&](const FailedRun& failed) {
      tested.prepare();
      SetLastError(kUntouched);
      const bool succeeded = tested.call();
      const DWORD error = GetLastError();
      EXPECT_TRUE(!succeeded || tested.holds()) << "no truth in the success";
      const bool isNeeded = std::find(tested.needs.begin(), tested.needs.end(), failed.call.name) != tested.needs.end();
      if (failed.forEver && failed.HasFailed() && failed.nth == 1) {
        EXPECT_EQ(succeeded, !isNeeded);
      }
      EXPECT_TRUE(succeeded || !tested.keepsError || error == failed.call.error) << error;
      TakeLines(channel::kFileOperation);
      TakeLines(channel::kAssert);
    });
    tested.prepare();
    EXPECT_TRUE(tested.call() && tested.holds()) << "after all failures";
  }

  bool Holds(const char* name, const std::string& bytes) const { return Read(name) == bytes; }

  ScopedFile OpenFile(const char* name) const {
    return ScopedFile(OpenPlain(Wide(name), GENERIC_READ | GENERIC_WRITE, 3, OPEN_ALWAYS));
  }
  static bool Close(HANDLE file) { return file != INVALID_HANDLE_VALUE && file != nullptr && CloseHandle(file); }
};

}  // namespace qel::test
