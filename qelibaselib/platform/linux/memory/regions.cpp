#include "qelibaselib/platform/linux/memory/regions.h"

#include <algorithm>
#include <cstdlib>
#include <type_traits>

#include "qelibaselib/platform/linux/win32/memoryapi.h"

namespace qel::layer {
namespace {

class Scanner {
 public:
  explicit Scanner(std::string_view text) : at_(text.data()), end_(text.data() + text.size()) {}

  // A number of at least one digit that is at most kLimit.
  template <unsigned kBase, uint64_t kLimit>
  bool Number(uint64_t* value) {
    using Digits = std::conditional_t<(kLimit > UINT32_MAX), uint64_t, uint32_t>;  // addresses in one register
    const char* const begin = at_;
    Digits result = 0;
    for (; at_ != end_; ++at_) {
      const unsigned digit = DigitOf<kBase>(*at_);
      if (digit >= kBase) break;
      if (result > kLimit / kBase) return false;
      result = result * kBase + digit;
      if (result < digit || result > kLimit) return false;
    }
    *value = result;
    return at_ != begin;
  }
  bool Character(char expected) { return at_ != end_ && *at_++ == expected; }
  bool Flag(char yes, char no, bool* isYes) {
    if (at_ == end_ || (*at_ != yes && *at_ != no)) return false;
    *isYes = *at_++ == yes;
    return true;
  }

 private:
  template <unsigned kBase>
  static unsigned DigitOf(char character) {
    const auto code = static_cast<unsigned char>(character);
    if (kBase == 16 && code >= 'a') return code - 'a' + 10u;
    const unsigned digit = code - static_cast<unsigned>('0');
    return digit < 10 ? digit : kBase;  // the colon follows the nine
  }

  const char* at_;
  const char* const end_;
};

DWORD ProtectionOf(const MapLine& line) {
  const bool copied = !line.shared && line.inode != 0;
  if (line.write) {
    if (copied) return line.execute ? PAGE_EXECUTE_WRITECOPY : PAGE_WRITECOPY;
    return line.execute ? PAGE_EXECUTE_READWRITE : PAGE_READWRITE;
  }
  if (line.read) return line.execute ? PAGE_EXECUTE_READ : PAGE_READONLY;
  return line.execute ? PAGE_EXECUTE : PAGE_NOACCESS;
}

bool SameKind(const AddressRegion& first, const AddressRegion& second) {
  return first.allocationBase == second.allocationBase && first.allocationProtect == second.allocationProtect &&
         first.state == second.state && first.protect == second.protect && first.type == second.type;
}

}  // namespace

bool ParseMapLine(std::string_view line, MapLine* result) {
  constexpr uint64_t kLastAddress = kAddressSpaceEnd - 1;
  Scanner scan(line);
  uint64_t start, end, offset, major, minor, inode;
  if (!scan.Number<16, kLastAddress>(&start) || !scan.Character('-') || !scan.Number<16, kLastAddress>(&end) ||
      !scan.Character(' ') || start >= end || (start | end) % kPageSize != 0)
    return false;
  if (!scan.Flag('r', '-', &result->read) || !scan.Flag('w', '-', &result->write) ||
      !scan.Flag('x', '-', &result->execute) || !scan.Flag('s', 'p', &result->shared) || !scan.Character(' '))
    return false;
  if (!scan.Number<16, UINT64_MAX>(&offset) || !scan.Character(' ') || !scan.Number<16, 0xFFF>(&major) ||
      !scan.Character(':') || !scan.Number<16, 0xFFFFF>(&minor) || !scan.Character(' ') ||
      !scan.Number<10, UINT64_MAX>(&inode))
    return false;
  result->start = start;
  result->end = end;
  result->offset = offset;
  result->device = major << 20 | minor;
  result->inode = inode;
  return true;
}

bool LineCutter::Next(std::string_view* line) {
  const size_t length = text_.find('\n');
  if (length == std::string_view::npos) return false;
  *line = text_.substr(0, length);
  text_.remove_prefix(length + 1);
  return true;
}

void RegionList::Free() {
  std::free(heap_);
  heap_ = nullptr;
  size_ = 0;
  capacity_ = kSpares;
}

bool RegionList::Push(const AddressRegion& region) {
  if (size_ == capacity_ && !Grow()) return false;
  (heap_ ? heap_ : spare_)[size_++] = region;
  return true;
}

bool RegionList::Grow() {
  const uint32_t capacity = std::max(kFirstCapacity, capacity_ * 2);
  auto* larger = static_cast<AddressRegion*>(std::realloc(heap_, capacity * sizeof(AddressRegion)));
  if (!larger) return false;
  if (!heap_) std::copy_n(spare_, size_, larger);
  heap_ = larger;
  capacity_ = capacity;
  return true;
}

// Pieces of one file that lie side by side as they do in the file are one mapping, whatever their protections are.
void RegionBuilder::FollowForeignBase(const MapLine& line) {
  const MapLine& last = lastLine_;
  const bool goesOn = line.inode != 0 && line.inode == last.inode && line.device == last.device &&
                      line.start == last.end && line.offset == last.offset + (last.end - last.start);
  if (!goesOn) foreignBase_ = line.start;
  lastLine_ = line;
}

AddressRegion RegionBuilder::Describe(const MapLine& line, uintptr_t start, uint64_t end,
                                      const MemoryOwner& owner) const {
  const bool noAccess = !line.read && !line.write && !line.execute;
  const bool anonymous = line.inode == 0 && !line.shared;
  AddressRegion region = {start, end, owner.base, owner.allocationProtect, MEM_COMMIT, ProtectionOf(line), owner.type};
  if (owner.type == 0) {
    region.allocationBase = foreignBase_;
    region.allocationProtect = region.protect;
    region.type = anonymous ? MEM_PRIVATE : MEM_MAPPED;
  }
  const bool reserved = owner.type == 0 || owner.type == MEM_IMAGE ? noAccess && anonymous : owner.reserved;
  if (reserved) {
    region.state = MEM_RESERVE;
    region.protect = 0;
  }
  return region;
}

bool RegionBuilder::Add(const MapLine& line) {
  FollowForeignBase(line);
  uint64_t position = std::max<uint64_t>(line.start, position_);
  if (position >= line.end) return true;
  if (!AddFree(position)) return false;
  while (position < line.end) {
    const MemoryOwner owner = owners_->At(position);
    const uint64_t end = std::min<uint64_t>(line.end, std::max(owner.until, position + kPageSize));
    if (!AddRegion(Describe(line, position, end, owner))) return false;
    position = end;
  }
  return true;
}

bool RegionBuilder::Finish() { return AddFree(kAddressSpaceEnd) && PushCurrent(); }

bool RegionBuilder::AddFree(uint64_t end) {
  if (end <= position_) return true;
  return AddRegion({static_cast<uintptr_t>(position_), end, 0, 0, MEM_FREE, PAGE_NOACCESS, 0});
}

bool RegionBuilder::AddRegion(const AddressRegion& region) {
  position_ = region.end;
  if (current_.end == region.start && SameKind(current_, region)) {
    current_.end = region.end;
    return true;
  }
  if (!PushCurrent()) return false;
  current_ = region;
  return true;
}

bool RegionBuilder::PushCurrent() { return current_.end <= from_ || regions_->Push(current_); }

}  // namespace qel::layer
