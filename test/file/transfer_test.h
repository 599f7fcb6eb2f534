// What the tests of the transfers share.
#pragma once
#include "qelibaselib/memory/physical_memory.h"
#include "test/file/file_test.h"
#include "test/support/library.h"

namespace qel::test {

inline constexpr DWORD kGranularity = 0x10000;
inline constexpr DWORD kChunk = 0x1000000;

// Compares without printing megabytes.
inline testing::AssertionResult SameBytes(const std::string& actual, const std::string& expected) {
  if (actual == expected) return testing::AssertionSuccess();
  if (actual.size() != expected.size())
    return testing::AssertionFailure() << actual.size() << " bytes instead of " << expected.size();
  const size_t at =
      static_cast<size_t>(std::mismatch(actual.begin(), actual.end(), expected.begin()).first - actual.begin());
  return testing::AssertionFailure() << "differs at " << at;
}
inline testing::AssertionResult FileHolds(const std::filesystem::path& path, const std::string& expected) {
  return SameBytes(ReadWholeFile(path), expected);
}

// Records the views that the library maps and gives back.
class ViewRecorder {
 public:
  struct View {
    ULONGLONG offset;
    SIZE_T bytes;
    BYTE* address;
    const BYTE* unmappedBy;
  };
  const std::vector<View>& Views() const { return views_; }
  std::vector<SIZE_T> Sizes() const {
    std::vector<SIZE_T> sizes;
    for (const View& view : views_) sizes.push_back(view.bytes);
    return sizes;
  }
  size_t Mapped() const {
    return static_cast<size_t>(
        std::count_if(views_.begin(), views_.end(), [](const View& view) { return !view.unmappedBy; }));
  }

 private:
  std::vector<View> views_;
  StandIn<"MapViewOfFile", decltype(&::MapViewOfFile)> map_{
      [this](int, HANDLE mapping, DWORD access, DWORD high, DWORD low, SIZE_T bytes) {
        void* view = MapViewOfFile(mapping, access, high, low, bytes);
        if (view) views_.push_back({Join(low, high), bytes, static_cast<BYTE*>(view), nullptr});
        return view;
      }};
  StandIn<"UnmapViewOfFile", decltype(&::UnmapViewOfFile)> unmap_{[this](int, LPCVOID address) {
    const auto* place = static_cast<const BYTE*>(address);
    for (View& view : views_) {
      if (!view.unmappedBy && place >= view.address && place < view.address + view.bytes) view.unmappedBy = place;
    }
    return UnmapViewOfFile(address);
  }};
};

// Lets physical memory be short for the scope.
class MemoryShortage {
 public:
  MemoryShortage() { SetIsPhysMemShortage(~0ull); }
  ~MemoryShortage() { SetIsPhysMemShortage(256ull << 20); }
};

}  // namespace qel::test
