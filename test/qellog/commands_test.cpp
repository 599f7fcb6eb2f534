// The commands on folders of odd files.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "qellog/command/request.h"
#include "test/support/scratch_folder.h"

namespace {

using namespace qellog;
using qel::test::ReadWholeFile;
using qel::test::WriteWholeFile;

constexpr char kFileChannel[] = "VemoFileOperation_7EFEA029.txt";
constexpr char kMiscChannel[] = "VemoLogOutMisc_7EFEA029.txt";

std::string Line(const std::string& time, const std::string& message, int thread = 2) {
  return "2024/03/05, " + time + ", ML=37, /opt/viewer, 1, " + std::to_string(thread) + ", s.cpp(1):" + message +
         "\r\n";
}

class QellogCommands : public testing::Test {
 protected:
  void Write(const std::string& name, const std::string& bytes) { WriteWholeFile(folder.Path() / name, bytes); }
  // What the command prints; `outcome` is its answer.
  std::string Run(Outcome (*command)(const Request&, Problems&, Output&), Request request = {}) {
    const auto path = output.Path() / "out";
    if (request.names.empty()) request.names = {PathText(folder.Path())};
    std::FILE* const stream = std::fopen(path.string().c_str(), "wb");
    Output out(stream);
    Problems problems;
    outcome = command(request, problems, out);
    failed = problems.Any();
    std::fclose(stream);
    return ReadWholeFile(path);
  }
  qel::test::ScratchFolder folder, output;
  Outcome outcome = Outcome::kGood;
  bool failed = false;
};

TEST_F(QellogCommands, CatMergesByTimeAndKeepsTheOrderOfEachFile) {
  Write(kFileChannel, Line("10:00:01.000", "f1") + Line("10:00:03.000", "f2") + Line("10:00:02.500", "f3", 3));
  Write(kMiscChannel, Line("10:00:00.000", "m1") + Line("10:00:03.000", "m2"));
  Write("notes.txt", "nothing of ours\n");
  const std::string text = Run(&RunCat);
  EXPECT_TRUE(text.find("m1") < text.find("f1") && text.find("f1") < text.find("f2") &&
              text.find("f2") < text.find("f3") && text.find("f3") < text.find("m2"))
      << text;
  EXPECT_EQ(text.find("nothing of ours"), std::string::npos);
  EXPECT_FALSE(failed);
}

TEST_F(QellogCommands, CatFilters) {
  Write(kFileChannel,
        Line("10:00:01.000", "retryCount=0, lastErr=32, Retry, CreateFileX(a)") + Line("10:00:02.000", "two", 3));
  Write(kMiscChannel, Line("10:00:03.000", "three\r\nof more"));
  const auto count = [this](const std::function<void(Filter&)>& set) {
    Request request;
    set(request.filter);
    const std::string text = Run(&RunCat, request);
    return std::count(text.begin(), text.end(), '%');
  };
  EXPECT_EQ(count([](Filter&) {}), 3);
  EXPECT_EQ(count([](Filter& filter) { filter.channels = {"file"}; }), 2);
  EXPECT_EQ(count([](Filter& filter) { filter.threadIds = {3}; }), 1);
  EXPECT_EQ(count([](Filter& filter) { filter.processIds = {9}; }), 0);
  EXPECT_EQ(count([](Filter& filter) { filter.errors = {32}; }), 1);
  EXPECT_EQ(count([](Filter& filter) { filter.programs = {"viewer"}; }), 3);
  EXPECT_EQ(count([](Filter& filter) { filter.sources = {"s.cpp(2)"}; }), 0);
  EXPECT_EQ(count([](Filter& filter) { filter.texts = {{"OF MORE", LetterCase::kIgnored}}; }), 1);
  EXPECT_EQ(count([](Filter& filter) { filter.since = ParseMoment("2024/03/05 10:00:02", {}); }), 2);
  EXPECT_EQ(count([](Filter& filter) { filter.until = ParseMoment("2024/03/05 10:00:02", {}); }), 2);
}

TEST_F(QellogCommands, CheckFindsEachKindOfDamage) {
  const std::string good = Line("10:00:01.000", "a\r\nb") + Line("10:00:00.900", "other thread", 3);
  const std::string unfinished = Line("10:00:02.000", "being written").substr(0, 50);
  const struct {
    std::string bytes;
    const char* damage;  // null: there is none
  } cases[] = {
      {good, nullptr},
      {good + unfinished, nullptr},
      {good + "2024/03", nullptr},
      {good + unfinished + "\r\n" + good, "damaged line"},
      {good + "2024/02/31, 10:00:00.000, x\r\n", "damaged line"},
      {"foreign\r\n" + good, "foreign text"},
      {good + std::string(4, '\0') + "\r\n" + good, "foreign text"},
      {good + "unix line\n", "foreign text"},
      {Line("10:00:01.000", "cut" + Line("10:00:02.000", "next")), "two lines in one"},
      {Line("10:00:01.000", "a") + Line("09:59:00.000", "b"), "line out of order"},
      {good + Line("10:00:02.000", std::string(0x100000, 'x')), nullptr},  // the line that went over the limit
      {good + Line("10:00:02.000", std::string(0x100000, 'x')) + Line("10:00:03.000", "more"), "file beyond its limit"},
  };
  for (const auto& [bytes, damage] : cases) {
    Write(kFileChannel, bytes);
    const std::string text = Run(&RunCheck);
    EXPECT_EQ(outcome, damage ? Outcome::kDamage : Outcome::kGood) << text;
    if (damage) {
      EXPECT_NE(text.find(damage), std::string::npos) << text;
    }
  }
}

TEST_F(QellogCommands, WhatCannotBeReadIsToldAndTheRestIsRead) {
  Write(kFileChannel, Line("10:00:01.000", "there"));
  Request request;
  request.names = {PathText(folder.Path() / "missing"), PathText(folder.Path())};
  EXPECT_NE(Run(&RunCat, request).find("there"), std::string::npos);
  EXPECT_TRUE(failed);
}

TEST_F(QellogCommands, SummaryCounts) {
  Write(kFileChannel, Line("10:00:00.000", "retryCount=0, lastErr=32, Retry, CreateFileX(a)") +
                          Line("10:00:02.000", "retryCount=1, lastErr=32, Complete, CreateFileX(a)") +
                          Line("10:20:00.000", "retryCount=2, lastErr=0, Complete, CopyFileX(a, b)"));
  Write(kMiscChannel, Line("11:00:00.000", "lastErr=5, DeleteFileX(\x1b[2J)") + std::string(0x100001, 'x') + "\r\n");
  Request request;
  request.format = Format::kJson;
  const auto summary = nlohmann::json::parse(Run(&RunSummary, request));
  EXPECT_EQ(summary["lines"], 4);
  EXPECT_EQ(summary["first"], "2024-03-05T10:00:00.000");
  EXPECT_EQ(summary["last"], "2024-03-05T11:00:00.000");
  EXPECT_EQ(summary["channels"][1]["fullFiles"], 1);
  EXPECT_EQ(summary["processes"].size(), 1u);
  EXPECT_EQ(summary["errors"][1]["name"], "ERROR_SHARING_VIOLATION");
  EXPECT_EQ(summary["errors"][1]["count"], 2);
  EXPECT_EQ(summary["retries"]["endedWell"], 1);
  EXPECT_EQ(summary["retries"]["endedBadly"], 1);
  EXPECT_EQ(summary["waits"][0]["milliseconds"], 2000);
  EXPECT_EQ(summary["silences"].size(), 2u);
  const std::string text = Run(&RunSummary);
  EXPECT_NE(text.find("32 ERROR_SHARING_VIOLATION"), std::string::npos);
  EXPECT_NE(text.find("full: takes no more"), std::string::npos);
}

TEST_F(QellogCommands, NothingOfAMessageReachesATerminalOrAFormula) {
  Write(kMiscChannel, Line("10:00:00.000", "\x1b]0;owned\x07 \xE2\x80\xAE \"q\", =x"));
  for (const Format format : {Format::kText, Format::kJson, Format::kCsv}) {
    Request request;
    request.format = format;
    const std::string text = Run(&RunCat, request);
    EXPECT_EQ(text.find('\x1b'), std::string::npos);
    EXPECT_EQ(text.find("\xE2\x80\xAE"), std::string::npos);
    if (format == Format::kJson) {
      EXPECT_EQ(nlohmann::json::parse(text)["message"], "\x1b]0;owned\x07 \xE2\x80\xAE \"q\", =x");
    }
  }
  const auto document = nlohmann::json::parse(Run(&RunJson));
  EXPECT_EQ(document["schemaVersion"], 1);
  EXPECT_EQ(document["records"].size(), 1u);
}

}  // namespace
