// The guard of exported functions, through the real log and the real report: a call that the library makes faults.
#include "qelibaselib/platform/mfc/exception.h"
#include "test/support/bad_pointer.h"
#include "test/support/library.h"

namespace qel::test {
namespace {

int g_deleted;
class HostException : public CException {
 public:
  ~HostException() override { ++g_deleted; }
};

int __cdecl CorruptHeap() { return _HEAPBADBEGIN; }

struct Evidence {
  int line = 0;  // of the clause
  std::string sourceFile, assertions, report;
};
template <class Behaviour>
Evidence CreateSemaphoreWith(Behaviour behaviour) {
  TakeLines(channel::kAssert);
  const auto report = LogFolder() / channel::kExceptionReport.fileName;
  std::filesystem::remove(report);
  const auto standIn = STAND_IN(CreateSemaphoreW, [&](int, auto...) -> HANDLE {
    behaviour();
    return nullptr;
  });
  EXPECT_EQ(CreateSemaphoreX(7, "host.cpp", nullptr, 0, 1, nullptr), nullptr);
  Evidence evidence;
  for (const LogLine& line : TakeLines(channel::kAssert)) {
    if (line.message.find("_CATCH_") == std::string::npos) continue;
    evidence.line = line.line;
    evidence.sourceFile = line.sourceFile;
    evidence.assertions += line.message + "\n";
  }
  evidence.report = ReadWholeFile(report);
  return evidence;
}

TEST(GuardOfExports, FaultOnAThreadWithoutTranslator) {
  const Evidence evidence = CreateSemaphoreWith(&WriteBadAddress);
  EXPECT_EQ(evidence.assertions,
            "ASSERT : " + evidence.sourceFile + "(" + std::to_string(evidence.line) + "), _CATCH_AE\n");
  EXPECT_NE(evidence.report.find("Exception CATCH_AE"), std::string::npos);
}

TEST(GuardOfExports, ClausesAreOneLineApartAndTheFrameworkExceptionGoes) {
  g_deleted = 0;
  const Evidence framework = CreateSemaphoreWith([] { throw new HostException; });
  EXPECT_NE(framework.assertions.find("_CATCH_CE"), std::string::npos);
  EXPECT_NE(framework.report.find("Exception CATCH_CE : "), std::string::npos);
  EXPECT_EQ(g_deleted, 1);
  const Evidence other = CreateSemaphoreWith([] { throw std::string("host"); });
  EXPECT_NE(other.assertions.find("_CATCH_AE"), std::string::npos);
  EXPECT_EQ(other.line, framework.line + 1);
  EXPECT_EQ(other.sourceFile, framework.sourceFile);
}

// An export without a guard: the host's own handler takes what it raises, on both targets.
TEST(UnguardedExport, RaisesToTheHost) {
  char buffer[4];
  EXPECT_ANY_THROW(_MemCpy(buffer, BadPointer(), sizeof buffer, 7, "host.cpp"));
}

TEST(GuardOfExports, CorruptHeapIsWrittenAfterTheClause) {
  const ReplaceCall heap("_heapchk", &CorruptHeap);
  TakeLines(channel::kAssert);
  const auto faulting = FAULT_IN(CreateSemaphoreW);
  EXPECT_EQ(CreateSemaphoreX(7, "host.cpp", nullptr, 0, 1, nullptr), nullptr);
  const auto lines = TakeLines(channel::kAssert);
  ASSERT_GE(lines.size(), 2u);
  EXPECT_NE(lines[0].message.find("_CATCH_AE"), std::string::npos);
  EXPECT_NE(lines[1].message.find("), _heapchk()"), std::string::npos);
  EXPECT_EQ(lines[1].line, lines[0].line);
}

}  // namespace
}  // namespace qel::test
