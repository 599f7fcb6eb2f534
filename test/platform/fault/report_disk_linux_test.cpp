// Reports on a disk that has no room for them.

#include <fstream>

#include "qelibaselib/platform/fault/fault.h"
#include "test/platform/fault/reports.h"
#include "test/support/library.h"
#include "test/support/small_disk.h"

namespace qel::test {
namespace {

// One report on a full disk, one with the room that is free then.
CHILD_ROLE(ReportOntoFullDisk) {
  const std::filesystem::path folder = arguments[0], filler = folder / "filler";
  fault::SetTranslator(&fault::ThrowCse);  // its reports are longer
  VemoSetLogPath(folder.wstring().c_str());
  std::ofstream(filler) << std::string(56 * 1024, 'x');
  FaultInExport();
  std::filesystem::remove(filler);
  FaultInExport();
  return 0;
}

TEST(FullDisk, LosesWholeLinesAndTheNextReportBeginsALine) {
  const SmallDisk disk("64k");
  if (!disk.IsMounted()) GTEST_SKIP() << "no right to mount";
  EXPECT_EQ(ChildProcess("ReportOntoFullDisk", {disk.Path().string()}).Wait(), 0);
  const std::string text = ReadWholeFile(disk.Path() / channel::kExceptionReport.fileName);
  const size_t second = text.rfind("TC=2, ");
  ASSERT_NE(second, std::string::npos);
  const std::string first = text.substr(0, text.rfind("\r\n\r\n", second));
  EXPECT_FALSE(IsWhole(first));
  EXPECT_TRUE(text.ends_with("\r\n"));
  EXPECT_NE(text.find("\r\n\r\n>>>>", first.size()), std::string::npos);
}

}  // namespace
}  // namespace qel::test
