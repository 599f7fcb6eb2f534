#include "qellog/folder/merged_records.h"

#include <algorithm>

namespace qellog {
namespace {

/// The more files, the smaller their buffers, so that all together stay below 20 MiB.
std::size_t BufferBytes(std::size_t files) {
  constexpr std::size_t kAll = 20u << 20;
  constexpr std::size_t kLargest = 512u << 10;
  constexpr std::size_t kSmallest = 32u << 10;
  return std::clamp(kAll / std::max<std::size_t>(files, 1), kSmallest, kLargest);
}

}  // namespace

class MergedRecords::Stream {
 public:
  Stream(const LogFile& file, const Filter& filter, ReportProblem problem, std::size_t bufferBytes)
      : filter_(filter),
        problem_(std::move(problem)),
        input_(file.isStandardInput ? std::make_unique<InputFile>() : std::make_unique<InputFile>(file.path)),
        reader_(*input_, file.role, bufferBytes),
        current_{&file, {}} {}

  /// Steps to the next record that the filter takes. False at the end.
  bool Step() {
    while (Read()) {
      if (!filter_.Takes(current_.record)) continue;
      order_ = std::max(order_, current_.record.time);
      return true;
    }
    if (!input_->Failure().empty()) problem_(PathText(current_.file->path), input_->Failure());
    return false;
  }
  const FileRecord& Current() const { return current_; }
  Timestamp Order() const { return order_; }

 private:
  bool Read() {
    return filter_.texts.empty() ? reader_.Next(current_.record)
                                 : reader_.NextWith(filter_.texts.front(), current_.record);
  }
  const Filter& filter_;
  ReportProblem problem_;
  std::unique_ptr<InputFile> input_;
  RecordReader reader_;
  FileRecord current_;
  Timestamp order_{INT64_MIN};
};

MergedRecords::MergedRecords(const std::vector<LogFile>& files, const Filter& filter, const ReportProblem& problem) {
  const std::size_t bufferBytes = BufferBytes(files.size());
  for (const LogFile& file : files) {
    if (!filter.TakesFile(file)) continue;
    auto stream = std::make_unique<Stream>(file, filter, problem, bufferBytes);
    if (!stream->Step()) continue;
    streams_.push_back(std::move(stream));
    PutInOrder(streams_.size() - 1);
  }
}

MergedRecords::~MergedRecords() = default;

bool MergedRecords::ComesLater(std::size_t left, std::size_t right) const {
  const Timestamp leftOrder = streams_[left]->Order();
  const Timestamp rightOrder = streams_[right]->Order();
  return leftOrder != rightOrder ? leftOrder > rightOrder : left > right;
}

void MergedRecords::PutInOrder(std::size_t stream) {
  heap_.push_back(stream);
  std::push_heap(heap_.begin(), heap_.end(), [this](auto left, auto right) { return ComesLater(left, right); });
}

std::size_t MergedRecords::TakeFront() {
  std::pop_heap(heap_.begin(), heap_.end(), [this](auto left, auto right) { return ComesLater(left, right); });
  const std::size_t stream = heap_.back();
  heap_.pop_back();
  return stream;
}

// The record that was given last stays in its buffer until now.
const FileRecord* MergedRecords::Next() {
  if (given_) {
    if (streams_[*given_]->Step())
      PutInOrder(*given_);
    else
      streams_[*given_].reset();
    given_.reset();
  }
  if (heap_.empty()) return nullptr;
  given_ = TakeFront();
  return &streams_[*given_]->Current();
}

}  // namespace qellog
