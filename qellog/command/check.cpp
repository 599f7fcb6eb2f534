#include "qellog/command/request.h"
#include "qellog/folder/damage.h"
#include "qellog/output/json_text.h"
#include "qellog/text/visible_text.h"

namespace qellog {
namespace {

constexpr std::uint64_t kMostShown = 200;

class DamageWriter {
 public:
  DamageWriter(const Request& request, Output& output)
      : format_(request.format), colours_(request.colours), output_(output) {}
  void Write(const Damage& damage) {
    if (format_ == Format::kJson) return output_.Write(JsonOfDamage(damage) + "\n");
    if (++shown_ > kMostShown) return;
    output_.Write(VisibleText(PathText(damage.file->path)) + ":" + std::to_string(damage.line) + ": " +
                  colours_.Paint(Colour::kRed, NameOf(damage.kind)) + ": " + VisibleText(damage.detail) + "\n");
  }

 private:
  Format format_;
  Colours colours_;
  Output& output_;
  std::uint64_t shown_ = 0;
};

std::string Counts(const DamageFinder& damage) {
  std::string text;
  for (std::size_t kind = 0; kind < kDamageKinds; ++kind) {
    const std::uint64_t count = damage.CountOf(static_cast<DamageKind>(kind));
    if (count > 0) text += (text.empty() ? "" : ", ") + Grouped(count) + " x " + NameOf(static_cast<DamageKind>(kind));
  }
  return text;
}

}  // namespace

Outcome RunCheck(const Request& request, Problems& problems, Output& output) {
  const std::vector<LogFile> files = FilesOf(request, problems);
  DamageWriter writer(request, output);
  DamageFinder damage([&writer](const Damage& found) { writer.Write(found); });
  const Filter everything;
  std::uint64_t records = 0;
  std::uint64_t unfinished = 0;
  MergedRecords merged(files, everything, problems.Teller());
  while (const FileRecord* const record = merged.Next()) {
    ++records;
    if (record->record.unfinished) ++unfinished;
    damage.Look(*record);
  }
  if (request.format == Format::kText) {
    const std::string counts = Counts(damage);
    output.Write(std::to_string(files.size()) + " files, " + Grouped(records) +
                 " records: " + (counts.empty() ? "no damage" : counts) +
                 (unfinished > 0 ? "; " + Grouped(unfinished) + " unfinished" : "") + "\n");
  }
  return damage.Count() > 0 ? Outcome::kDamage : Outcome::kGood;
}

}  // namespace qellog
