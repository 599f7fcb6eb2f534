/// @file
/// The texts that the log folder's files consist of: names of files, layouts of lines, headings of reports. The library
/// writes them and the reader of log folders (qellog/) recognises files by them, so each stands here once. This header
/// includes nothing of the system and defines no object.
#pragma once
#include <cstddef>

namespace qel::layout {

/// One text in both widths: files are opened by wide names and recognised by narrow ones.
template <std::size_t kSize>
struct NameInBothWidths {
  constexpr NameInBothWidths(const char (&text)[kSize]) {  // NOLINT(google-explicit-constructor): stands for its text
    for (std::size_t i = 0; i < kSize; ++i) {
      narrow[i] = text[i];
      wide[i] = static_cast<wchar_t>(text[i]);
    }
  }
  char narrow[kSize]{};
  wchar_t wide[kSize]{};
};

inline constexpr NameInBothWidths kAssertFile("VemoLogOutAssert_7EFEA029.txt");
inline constexpr NameInBothWidths kMiscFile("VemoLogOutMisc_7EFEA029.txt");
inline constexpr NameInBothWidths kLockFile("VemoLockLogOut_7EFEA029.txt");
inline constexpr NameInBothWidths kFileOperationFile("VemoFileOperation_7EFEA029.txt");
inline constexpr NameInBothWidths kFlushFile("VemoFlushViewOfFileLogOut_7EFEA029.txt");
inline constexpr NameInBothWidths kMemoryAllocationFile("VemoMemAllocLogOut_7EFEA029.txt");
inline constexpr NameInBothWidths kMemoryOperationFile("VemoMemOperation_7EFEA029.txt");
inline constexpr NameInBothWidths kModuleStatusErrorFile("VemoModuleStatusError_7EFEA029.txt");
inline constexpr NameInBothWidths kWinApiWrapFile("VemoWinApiWrap_7EFEA029.txt");
inline constexpr NameInBothWidths kModuleStatusReportFile("VemoModuleStatus_382C6292.txt");
inline constexpr NameInBothWidths kExceptionReportFile("VemoExceptLogOut_4DE2C31F.txt");
inline constexpr NameInBothWidths kBenchmarkReportFile("QelSystemBenchmark.txt");

/// A channel file that is longer takes no more lines.
inline constexpr unsigned long kChannelLimitBytes = 0x100000;
/// A file of status reports that is longer takes no more reports.
inline constexpr unsigned long kStatusReportLimitBytes = 0xA00000;

/// Time, memory load, program, process, thread, source file, line, message.
inline constexpr char kChannelLine[] = "%04d/%02d/%02d, %02d:%02d:%02d.%03d, ML=%lu, %s, %lu, %lu, %s(%d):%s\n";
/// The same without the memory load.
inline constexpr char kDayHistoryLine[] = "%04d/%02d/%02d, %02d:%02d:%02d.%03d, %s, %lu, %lu, %s(%d):%s\n";

/// Around the banner of an exception report.
inline constexpr char kExceptionSeparator[] =
    ">>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>>\n";
inline constexpr char kExceptionTime[] = ">>>>>>>>>> %04d/%02d/%02d %02d:%02d:%02d.%03d\n";
inline constexpr char kExceptionCounters[] = ">>>>>>>>>> TC=%lu, ProcessId()=%lu, ThreadId()=%lu\n";
inline constexpr char kSourceHeading[] =
    "======================= File Information ==============================================\n";
inline constexpr char kRecordHeading[] =
    "======================= Exception Information(EXCEPTION_RECORD) =======================\n";
inline constexpr char kContextHeading[] =
    "======================= Exception Information(CONTEXT) ================================\n";
inline constexpr char kCodeHeading[] =
    "======================= Machine Code Dump ==============================================\n";
inline constexpr char kStackWalkHeading[] =
    "======================= Stack Walk ==============================================\n";
inline constexpr char kRawStackHeading[] =
    "======================= Raw Stack Dump ==============================================\n";

/// In front of every line of a status report's banner; alone in its first two and its last.
inline constexpr char kStatusBannerLine[] = "#####\n";
inline constexpr char kStatusTime[] = "##### %04d/%02d/%02d %02d:%02d:%02d.%03d\n";
inline constexpr char kSystemVersionHeading[] = "================ OS Version ================\n";
inline constexpr char kAddressSpaceHeading[] = "===================== Virtual Memory Status =====================\n";
inline constexpr char kSystemHeading[] =
    "======================= System Status (GetSystemInfo) =======================\n";
inline constexpr char kGlobalMemoryHeading[] =
    "================ Global Memory Status (GlobalMemoryStatusEx) ================\n";
inline constexpr char kDiskHeading[] = "================ Disk Free Space ================\n";

inline constexpr char kBenchmarkHeading[] = "##### SystemBenchmark\n";
inline constexpr char kBenchmarkTime[] = "%04d/%02d/%02d %02d:%02d:%02d.%03d\n";
inline constexpr char kBenchmarkMemoryHeading[] =
    "======================= BenchMark of Memory =======================\n";
inline constexpr char kBenchmarkMappedHeading[] =
    "======================= BenchMark of MMF    =======================\n";
inline constexpr char kBenchmarkThreadsHeading[] =
    "======================= BenchMark of OMP    =======================\n";
inline constexpr char kBenchmarkErrorHeading[] = "=======ErrLog=======\n";
inline constexpr char kBenchmarkStampHeading[] = "=======TimeStamp=======\n";

}  // namespace qel::layout
