#include "qellog/report/symbols.h"

#include <gtest/gtest.h>

#include <cstring>

#include "qellog/html/timeline_counts.h"
#include "qellog/report/cause.h"

namespace {

using namespace qellog;

// A head with the numbers at their places.
std::string Head(const char* start, std::initializer_list<std::pair<std::size_t, std::uint32_t>> numbers) {
  std::string head(256, '\0');
  head.replace(0, std::strlen(start), start);
  for (const auto& [offset, number] : numbers) std::memcpy(head.data() + offset, &number, sizeof number);
  return head;
}

TEST(QellogSymbols, ReadsWhereAModuleWasLinkedTo) {
  const std::uint32_t tableShape = (2u << 16) | 32u;  // two entries of 32 bytes
  EXPECT_EQ(LinkedStart(Head("\x7f"
                             "ELF\x01",
                             {{28, 64}, {42, tableShape}, {64, 1}, {72, 0x8049000}, {96, 1}, {104, 0x8048000}})),
            0x8048000u);
  EXPECT_EQ(LinkedStart(Head("MZ", {{60, 128}, {128, 0x4550}, {180, 0x400000}})), 0x400000u);
  EXPECT_FALSE(
      LinkedStart(Head("\x7f"
                       "ELF\x01",
                       {{28, 0xFFFFFFF0}, {42, 0xFFFFFFFF}})));
  EXPECT_FALSE(LinkedStart(Head("MZ", {{60, 0xFFFFFFFF}})));
  EXPECT_FALSE(LinkedStart("text"));
  EXPECT_EQ(SymbolFolder("/").PlaceOf(5, false, {{0, 10, 0, "../../etc/passwd"}, {0, 10, 0, ".."}}), "");
}

TEST(QellogCause, IsToldInWords) {
  const struct {
    std::uint32_t code;
    std::vector<std::uint32_t> parameters;
    const char* cause;
  } cases[] = {
      {0xC0000005, {0, 0}, "read of address 0 in F"},
      {0xC0000005, {1, 0x30}, "write to address 0x30 in F"},
      {0xC0000005, {8, 0xFF}, "execution of address 0xff in F"},
      {0xC0000005, {0, 0x10, 64}, "bad buffer (0, 0x10, 64 bytes) in F"},
      {0xC0000006, {0, 0x10}, "unreadable file page: read of address 0x10 in F"},
      {0xC0000094, {}, "integer division by zero in F"},
      {0x12345678, {}, "exception 0x12345678 in F"},
  };
  for (const auto& [code, parameters, cause] : cases) {
    ExceptionReport report;
    report.exception = ExceptionRecord{code, 0, 0, 0, parameters};
    report.frames = {{1, "F", 0}, {2, "fault_run", 0}, {3, "", 0}};
    EXPECT_EQ(CauseOf(report), cause);
    EXPECT_EQ(TopFrames(report, 2), "F < 0x00000003");
  }
}

TEST(QellogTimeline, JoinsStepsAndKeepsTheirSum) {
  TimelineCounts timeline(2);
  for (int i = 0; i < 5000; ++i) timeline.Add(1, {1000 + i});
  timeline.Add(0, {0});
  const std::string json = timeline.Json();
  EXPECT_EQ(json.find("{\"start\":1000,\"width\":4,\"counts\":[[1],[4,4,4,"), 0u) << json.substr(0, 100);
  EXPECT_EQ(std::count(json.begin(), json.end(), '4'), 1251);
}

}  // namespace
