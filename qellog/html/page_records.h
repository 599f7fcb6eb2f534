/// @file
/// The records that a page holds: the latest, and those round the crashes, since a page of millions helps nobody.
#pragma once
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "qellog/folder/merged_records.h"

namespace qellog {

class PageRecords {
 public:
  /// `crashes` in the order of time; `limit` is how many of the latest are kept.
  PageRecords(std::vector<Timestamp> crashes, std::size_t limit) : crashes_(std::move(crashes)), limit_(limit) {}
  void Add(const FileRecord& record, std::size_t channel);
  std::uint64_t Count() const { return count_; }
  /// The rows as elements of a JSON list, in the order in which they came.
  void ForEachRow(const std::function<void(const std::string&)>& use) const;
  /// Lists of texts, which the rows refer to by number.
  std::string JsonOfPrograms() const { return JsonOf(programs_); }
  std::string JsonOfSources() const { return JsonOf(sources_); }
  /// {"32": "ERROR_SHARING_VIOLATION", ...} of the errors in the rows.
  std::string JsonOfErrorNames() const;

 private:
  struct Row {
    Timestamp time;
    std::string json;
  };
  using Numbers = std::map<std::string, std::size_t, std::less<>>;
  bool IsNearCrash(Timestamp time) const;
  std::string RowOf(const FileRecord& record, std::size_t channel);
  std::string LineFields(const LogLine& line);
  static std::size_t NumberOf(std::string_view text, Numbers& numbers);
  static std::string JsonOf(const Numbers& numbers);

  std::vector<Timestamp> crashes_;
  std::size_t limit_;
  std::uint64_t count_ = 0;
  std::deque<Row> nearCrashes_;
  std::deque<Row> latest_;
  Numbers programs_;
  Numbers sources_;
  std::map<std::uint32_t, std::string_view> errorNames_;
};

}  // namespace qellog
