/// @file
/// Places in the source for addresses of a report, by the debug files of its modules and the tools of the compiler.
#pragma once
#include <filesystem>
#include <string>

#include "qellog/report/exception_report.h"

namespace qellog {

class SymbolFolder {
 public:
  /// The folder holds the modules, or files of their names with ".debug" behind.
  explicit SymbolFolder(std::filesystem::path folder) : folder_(std::move(folder)) {}

  /// "SumPixels at image.cpp:42" for an address in one of the modules; empty when it lies in none, the folder has no
  /// such file or the tool is not installed. `isReturnAddress`: the place of the call is one byte before.
  std::string PlaceOf(std::uint32_t address, bool isReturnAddress, const std::vector<ModuleRange>& modules) const;

 private:
  std::filesystem::path folder_;
};

/// The address at which a module was linked to start, read from the head of an ELF or PE file; nothing for others.
std::optional<std::uint32_t> LinkedStart(std::string_view head);

}  // namespace qellog
