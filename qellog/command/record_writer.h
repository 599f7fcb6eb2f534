/// @file
/// Writes records in the format that was asked for.
#pragma once
#include "qellog/command/request.h"
#include "qellog/folder/merged_records.h"

namespace qellog {

class RecordWriter {
 public:
  RecordWriter(const Request& request, Output& output);
  void Write(const FileRecord& record);
  std::string TextOf(const FileRecord& record) const;

 private:
  Format format_;
  Colours colours_;
  Output& output_;
};

}  // namespace qellog
