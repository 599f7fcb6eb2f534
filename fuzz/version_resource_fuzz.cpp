// clang-format off
// fuzz-sources: qelibaselib/fileversion/file_version_reader.cpp qelibaselib/base/format.cpp qelibaselib/base/format_conversion.cpp qelibaselib/base/format_number.cpp qelibaselib/base/format_text.cpp qelibaselib/base/formatted_text.cpp qelibaselib/platform/linux/modules/pe_resources.cpp qelibaselib/platform/linux/modules/version_resource.cpp
// clang-format on

// The version reader on any bytes: clang's fuzzer with the address sanitizer. Compiled in are the reader and the
// layer's parser, instrumented; the rest is the library's.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qelibaselib/fileversion/file_version_reader.h"
#include "qelibaselib/platform/win32.h"

namespace {

// Written anew for each input; in memory.
class ModuleFile {
 public:
  ModuleFile() : path_("/dev/shm/qel-fuzz-" + std::to_string(getpid())) {
    descriptor_ = open(path_.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    if (descriptor_ < 0) std::abort();
  }
  ModuleFile(const ModuleFile&) = delete;
  ModuleFile& operator=(const ModuleFile&) = delete;
  ~ModuleFile() { unlink(path_.c_str()); }
  std::wstring Name() const { return {path_.begin(), path_.end()}; }
  void Write(const uint8_t* bytes, size_t count) const {
    if (ftruncate(descriptor_, 0) != 0 || pwrite(descriptor_, bytes, count, 0) != static_cast<ssize_t>(count))
      std::abort();
  }

 private:
  const std::string path_;
  int descriptor_;
};

size_t g_lengths;  // keeps the texts read

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t count) {
  static const ModuleFile file;
  static const std::wstring name = file.Name();
  file.Write(bytes, count);
  // Not through the exported calls: their guard would hide a fault.
  const qel::CFileVersion version(name.c_str());
  if (char** strings = version.Strings()) {
    for (int column = 0; column < kVersionStringCount; ++column)
      if (strings[column]) g_lengths += std::strlen(strings[column]);
  }
  return 0;
}
