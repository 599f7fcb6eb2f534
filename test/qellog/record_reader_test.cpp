#include "qellog/record/record_reader.h"

#include <gtest/gtest.h>

#include "qelibaselib/base/log_layout.h"

namespace {

using namespace qellog;

std::string Line(int millisecond, const std::string& message) {
  char time[64];
  std::snprintf(time, sizeof time, "2024/03/05, 14:07:09.%03d, ML=37, prog, 1, 2, s.cpp(1):", millisecond);
  return time + message + "\r\n";
}

struct Seen {
  RecordKind kind;
  std::string text;
  std::uint64_t offset, dropped;
  bool unfinished;
};

std::vector<Seen> ReadAll(std::string_view bytes, FileRole role, std::size_t buffer = 1 << 16,
                          const TextSearch* search = nullptr) {
  MemorySource source(bytes);
  RecordReader reader(source, role, buffer);
  std::vector<Seen> records;
  for (Record record; search ? reader.NextWith(*search, record) : reader.Next(record);)
    records.push_back({record.kind, std::string(record.text), record.offset, record.droppedBytes, record.unfinished});
  return records;
}

TEST(QellogReader, JoinsLinesOfAMessageAndCutsAtTimes) {
  const auto records = ReadAll("junk\r\n" + Line(1, "a\r\n\r\nb") + Line(2, "") + "2024/02/31, 00:00:00.000, \r\n" +
                                   Line(3, "cut").substr(0, 57),
                               FileRole::kChannel);
  ASSERT_EQ(records.size(), 5u);
  EXPECT_EQ(records[0].kind, RecordKind::kForeignText);
  EXPECT_EQ(records[1].text, Line(1, "a\r\n\r\nb").substr(0, records[1].text.size()));
  EXPECT_TRUE(records[1].text.ends_with("b"));
  EXPECT_EQ(records[2].kind, RecordKind::kLine);
  EXPECT_EQ(records[3].kind, RecordKind::kDamagedLine);
  EXPECT_TRUE(records[4].unfinished);
  EXPECT_FALSE(records[3].unfinished);
}

TEST(QellogReader, SeesALineThatEndsInsideItsTime) {
  for (const char* start : {"2", "2024/03/0", "2024/03/05, 14:07:09.04"}) {
    const auto records = ReadAll(Line(1, "whole") + start, FileRole::kChannel);
    ASSERT_EQ(records.size(), 2u) << start;
    EXPECT_FALSE(records[0].unfinished);
    EXPECT_TRUE(records[1].unfinished);
  }
}

TEST(QellogReader, TakesAnyLengthWithASmallBuffer) {
  const std::string text = Line(1, std::string(100'000, 'x')) + Line(2, "short") + Line(3, std::string(5000, '\n'));
  const auto records = ReadAll(text, FileRole::kChannel, RecordReader::kSmallestBuffer);
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[0].text.size(), RecordReader::kSmallestBuffer / 2);
  EXPECT_EQ(records[0].dropped + records[0].text.size(), Line(1, std::string(100'000, 'x')).size());
  EXPECT_EQ(records[1].text + "\r\n", Line(2, "short"));
  EXPECT_EQ(records[2].offset, text.size() - Line(3, std::string(5000, '\n')).size());
}

TEST(QellogReader, SearchGivesWhatReadingEverythingWouldFind) {
  std::string text = Line(0, "needle first");
  for (int i = 1; i < 900; ++i)
    text += Line(i, i % 97 == 0   ? "with\r\nthe Needle\r\nbehind"
                    : i % 50 == 0 ? "a needle"
                                  : "nothing here " + std::to_string(i));
  text += Line(999, "last needle");
  for (const auto letterCase : {LetterCase::kExact, LetterCase::kIgnored}) {
    for (const char* word : {"needle", "n", "behind", "14:07:09.097", "2024/03/05", "nothing here 77", "absent"}) {
      const TextSearch search(word, letterCase);
      std::vector<std::string> expected, found;
      for (const auto& record : ReadAll(text, FileRole::kChannel))
        if (search.IsIn(record.text)) expected.push_back(record.text);
      for (const auto& record : ReadAll(text, FileRole::kChannel, RecordReader::kSmallestBuffer, &search))
        if (search.IsIn(record.text)) found.push_back(record.text);
      EXPECT_EQ(found, expected) << word;
    }
  }
}

TEST(QellogSearch, AgreesWithThePlainSearch) {
  const std::string bytes = [] {
    std::string text;
    for (int i = 0; i < 3000; ++i) text += static_cast<char>("aabA/0,\n"[(i * 7 + i / 13) % 8]);
    return text;
  }();
  for (std::size_t begin = 0; begin < 40; ++begin) {
    for (std::size_t length : {1, 2, 3, 9, 40}) {
      const std::string word = bytes.substr(2000 + begin * 3, length);
      const std::string_view view = std::string_view(bytes).substr(begin);
      EXPECT_EQ(TextSearch(word, LetterCase::kExact).Find(view).value_or(view.npos), view.find(word));
      EXPECT_LE(TextSearch(word, LetterCase::kIgnored).Find(view).value_or(view.npos), view.find(word));
    }
  }
}

TEST(QellogReader, CutsReportsAtTheirBanners) {
  namespace layout = qel::layout;
  const std::string separators = std::string(2 * 88, '>').replace(87, 1, "\n").replace(175, 1, "\n");
  const std::string head = ">>>>>>>>>> 2024/03/05 14:07:09.042\n>>>>>>>>>> t(m)\n>>>>>>>>>> prog\n";
  const std::string banner = "\n" + separators + head + ">>>>>>>>>> TC=1, ProcessId()=3, ThreadId()=4\n" + separators;
  const std::string status = "\n#####\n#####\n##### 2024/03/05 14:07:10.000\n##### t()\n##### ProcessId()=3\n#####\n";
  const std::string benchmark = "##### SystemBenchmark\n2024/03/05 14:07:11.000\n#####\n";
  const std::string exception = banner + layout::kSourceHeading + "s.cpp(1)\n" + status;
  const std::string cutInBanner = "\n" + separators + ">>>>>>>>>> 2024/03/05 14:07:09.042\n";
  const auto kinds = [](const std::string& text, FileRole role) {
    std::string kinds;
    for (const auto& record : ReadAll(text, role)) kinds += "LD?ESB"[static_cast<int>(record.kind)];
    return kinds;
  };
  EXPECT_EQ(kinds(exception + exception + cutInBanner + exception, FileRole::kExceptionReports), "EEEE");
  EXPECT_EQ(kinds(status + status, FileRole::kStatusReports), "SS");
  EXPECT_EQ(kinds(benchmark + benchmark, FileRole::kBenchmarkReports), "BB");
  EXPECT_EQ(kinds(exception + status + benchmark + Line(1, "a") + exception, FileRole::kMixed), "ESBLE");
  EXPECT_EQ(kinds(Line(1, "a\n#####\n#####\n") + Line(2, separators), FileRole::kChannel), "LL");
}

}  // namespace
