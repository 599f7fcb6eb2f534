// Every export with the 1st, 2nd, ... call of the system failing, once and for ever: it says what is true, leaves the
// error of the call, and leaves nothing open.
#pragma once
#include "test/file/transfer_test.h"
#include "test/support/library.h"
#include "test/support/tested_exports.h"

namespace qel::test {

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
  static void Drive(const std::vector<TestedExport>& exports) {
    for (const TestedExport& each : exports) Drive(each);
  }
  static void Drive(const TestedExport& tested) {
    SCOPED_TRACE(tested.name);
    const FakeClock clock;
    // No flush takes longer than all before it, which would be logged, once.
    const auto counter = STAND_IN(QueryPerformanceCounter, [](int, LARGE_INTEGER* now) {
      now->QuadPart = 1;
      return TRUE;
    });
    tested.prepare();
    tested.call();  // what is made once in a process is made now
    FailEachCall(kCalls, [&](const FailedRun& failed) {
      tested.prepare();
      SetLastError(kUntouched);
      const bool succeeded = tested.call();
      const DWORD error = GetLastError();
      EXPECT_TRUE(!succeeded || tested.holds()) << "no truth in the success";
      const bool isNeeded = (" " + tested.needs + " ").find(Print(" %s ", failed.call.name)) != std::string::npos;
      if (failed.forEver && failed.HasFailed() && failed.nth == 1) {
        EXPECT_EQ(succeeded, !isNeeded);
      }
      EXPECT_TRUE(succeeded || tested.tells != Tells::kItsError || error == failed.call.error) << error;
      TakeLines(channel::kFileOperation);
      TakeLines(channel::kAssert);
    });
    tested.prepare();
    EXPECT_TRUE(tested.call() && tested.holds()) << "after all failures";
  }
};

}  // namespace qel::test
