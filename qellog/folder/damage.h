/// @file
/// What in the files is not as the library writes it.
#pragma once
#include <array>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <unordered_map>

#include "qellog/folder/merged_records.h"

namespace qellog {

enum class DamageKind {
  kDamagedLine,  ///< begins as a line but lacks a field or has no date that exists
  kForeignText,  ///< text before the first line, zero bytes, lines without the library's line end
  kTwoLines,     ///< a second line begins inside one: a writer was killed
  kOutOfOrder,   ///< earlier than what the same thread wrote before, or by more than a writer waits for its turn
  kBeyondLimit,  ///< the file took more although it was over its limit
  kCutReport,    ///< another report follows one that ends early
};
inline constexpr std::size_t kDamageKinds = 6;

/// "damaged line" and the like.
const char* NameOf(DamageKind kind);

struct Damage {
  DamageKind kind;
  const LogFile* file;
  std::uint64_t line;
  std::string detail;  ///< bytes of the file; whoever shows them makes them visible first
};

/// Looks at the records of all files in turn. An unfinished record at the end of a file is no damage.
class DamageFinder {
 public:
  using Found = std::function<void(const Damage&)>;
  explicit DamageFinder(Found found) : found_(std::move(found)) {}
  void Look(const FileRecord& record);
  /// How many there were of a kind.
  std::uint64_t CountOf(DamageKind kind) const { return counts_[static_cast<std::size_t>(kind)]; }
  std::uint64_t Count() const;

 private:
  struct FileState {
    bool isFirst = true;
    bool endsLinesBarely = false;  ///< the file was converted: none of its lines has a carriage return
    bool beyondLimitTold = false;
    Timestamp latest{INT64_MIN};
    std::unordered_map<std::uint64_t, Timestamp> latestOfThread;  ///< by process and thread
    std::uint64_t cutReportLine = 0;                              ///< of a report that may still be being written
  };
  void LookAtLine(const FileRecord& record, FileState& state);
  void LookAtOrder(const FileRecord& record, FileState& state);
  void LookForForeignText(const FileRecord& record, FileState& state);
  void LookAtReport(const FileRecord& record, FileState& state);
  void LookAtLimit(const FileRecord& record, FileState& state);
  void Tell(DamageKind kind, const FileRecord& record, std::string_view detail);

  Found found_;
  std::array<std::uint64_t, kDamageKinds> counts_{};
  std::map<const LogFile*, FileState> files_;
};

}  // namespace qellog
