#include "qellog/record/log_line.h"

#include <gtest/gtest.h>

#include "qellog/folder/filter.h"
#include "qellog/record/message_facts.h"

namespace {

using namespace qellog;

TEST(QellogTime, KnowsWhichDaysThereAre) {
  const struct {
    const char* text;
    bool isTime;
  } cases[] = {
      {"2024/02/29, 23:59:59.999", true},  {"2023/02/29, 00:00:00.000", false}, {"2026/02/31, 10:00:00.000", false},
      {"0000/01/01, 00:00:00.000", false}, {"2026/13/01, 00:00:00.000", false}, {"2026/01/01, 24:00:00.000", false},
      {"2026/01/01 10:00:00.000", false},  {"2026/01/01, 10:00:00.00", false},  {"9999/12/31, 23:59:59.999", true},
      {"2026-01-01, 10:00:00.000", false},
  };
  for (const auto& [text, isTime] : cases) {
    const auto time = ParseTime(text, TimeLayout::kWithComma);
    EXPECT_EQ(time.has_value(), isTime) << text;
    if (time) {
      EXPECT_EQ(FormatTime(*time), std::string(text).erase(10, 1));
    }
  }
}

TEST(QellogLine, FindsEveryFieldHoweverOddItsNeighbours) {
  const std::string time = "2024/03/05, 14:07:09.042, ";
  const struct {
    std::string text;
    const char *program, *source, *message;
    int line;
  } cases[] = {
      {"ML=37, C:\\a b\\p.exe, 1, 2, C:\\x\\s.cpp(-5):text", "C:\\a b\\p.exe", "C:\\x\\s.cpp", "text", -5},
      {"/a, b, 7, 8/p, 1, 2, s.cpp(5):", "/a, b, 7, 8/p", "s.cpp", "", 5},
      {"ML=100, p, 4294967295, 2, (null)(0):(null)", "p", "(null)", "(null)", 0},
      {"ML=1, p, 1, 2, s (1).cpp(9):a(3):b", "p", "s (1).cpp", "a(3):b", 9},
      {"ML=1, p, 1, 2, s(9):first\r\nsecond, 1, 2, s(3):", "p", "s", "first\r\nsecond, 1, 2, s(3):", 9},
  };
  for (const auto& [text, program, source, message, line] : cases) {
    const std::string whole = time + text;
    const auto parsed = ParseLine(whole);
    ASSERT_TRUE(parsed) << text;
    EXPECT_EQ(parsed->program, program);
    EXPECT_EQ(parsed->sourceFile, source);
    EXPECT_EQ(parsed->message, message);
    EXPECT_EQ(parsed->sourceLine, line);
    EXPECT_EQ(parsed->memoryLoad.has_value(), text.starts_with("ML="));
  }
  for (const char* damaged : {"", "ML=", "ML=x, p, 1, 2, s(1):", "p, 1, 2, s", "p, 1, 99999999999, s(1):m", "p, 1, 2"})
    EXPECT_FALSE(ParseLine(time + damaged)) << damaged;
}

TEST(QellogLine, NoticesASecondLineInsideOne) {
  const std::string second = "2024/03/05, 14:07:09.042, ML=37, p, 1, 2, s(1):m";
  EXPECT_EQ(FindSecondLine("a/b" + second), 3u);
  EXPECT_FALSE(FindSecondLine("a 2024/03/05, 14:07:09.042, ML=37, p"));
}

TEST(QellogMessage, TellsErrorsRetriesAndWaits) {
  const struct {
    const char* message;
    std::optional<std::uint32_t> error;
    std::optional<RetryOutcome> outcome;
    const char* function;
    std::int64_t waited;
  } cases[] = {
      {"retryCount=0, lastErr=32, Retry, CreateFileX(a, 0x0)", 32, RetryOutcome::kGoesOn, "CreateFileX", 0},
      {"retryCount=3, lastErr=0, Complete, CopyFileX(a, b)", 0, RetryOutcome::kEndedWell, "CopyFileX", 0},
      {"retryCount=3, lastErr=32, Complete, CreateFileX(a)", 32, RetryOutcome::kEndedBadly, "CreateFileX", 0},
      {"retryCount=0, lastErr=2, Complete, CreateFileX(a)", 2, {}, "", 0},
      {"retryCount=29, lastErr=8, Retry, CreateFileMappingX(a)", 8, RetryOutcome::kEndedBadly, "CreateFileMappingX", 0},
      {"Success, retryCount=2, lastErr=0, ET1=12.5, ET2=1.0, Complete, FlushViewOfFileX(0x1, 2)", 0,
       RetryOutcome::kEndedWell, "FlushViewOfFileX", 12},
      {"ASSERT : s.cpp(3), lec=5", 5, {}, "", 0},
      {"CLockMtx::Lock(ERROR, tim=2500, errCode=0, m_hMutex=0x1)", 0, {}, "", 2500},
      {"Error : Multi Start Up, p, lc=0xb7", 183, {}, "", 0},
      {"started", {}, {}, "", 0},
  };
  for (const auto& [message, error, outcome, function, waited] : cases) {
    EXPECT_EQ(ErrorOf(message), error) << message;
    const auto retry = RetryOf(message);
    EXPECT_EQ(retry ? std::optional(retry->outcome) : std::nullopt, outcome) << message;
    if (retry) {
      EXPECT_EQ(retry->function, function);
    }
    const auto wait = WaitOf(message);
    EXPECT_EQ(wait ? wait->milliseconds : 0, waited) << message;
  }
  EXPECT_EQ(ErrorName(32), "ERROR_SHARING_VIOLATION");
  EXPECT_EQ(ErrorByName("sharing_violation"), 32u);
}

TEST(QellogFilter, ReadsTimesAndErrors) {
  const Timestamp now = *ParseTime("2026/11/25 12:00:00.000", TimeLayout::kWithoutComma);
  const struct {
    const char *text, *time;
  } cases[] = {
      {"2026/11/24", "2026/11/24 00:00:00.000"},
      {"2026-11-24T10:30", "2026/11/24 10:30:00.000"},
      {"09:15", "2026/11/25 09:15:00.000"},
      {"-2h", "2026/11/25 10:00:00.000"},
      {"yesterday", nullptr},
      {"2026-02-31", nullptr},
      {"-h", nullptr},
      {"", nullptr},
  };
  for (const auto& [text, time] : cases) {
    const auto moment = ParseMoment(text, now);
    EXPECT_EQ(moment.has_value(), time != nullptr) << text;
    if (moment && time) {
      EXPECT_EQ(FormatTime(*moment), time);
    }
  }
  EXPECT_EQ(ParseError("0x20"), 32u);
  EXPECT_EQ(ParseError("ERROR_ACCESS_DENIED"), 5u);
  EXPECT_FALSE(ParseError("nonsense"));
}

}  // namespace
