#include "qelibaselib/platform/linux/modules/frame_guess.h"

#include <cstring>

#include "qelibaselib/platform/linux/modules/symbol_store.h"
#include "qelibaselib/platform/linux/win32/memoryapi.h"

namespace qel::layer {
namespace {

constexpr uint32_t kWordBytes = 4;
constexpr uint32_t kScanBytes = 16 * 1024;
constexpr DWORD kExecutable = PAGE_EXECUTE | PAGE_EXECUTE_READ | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
constexpr BYTE kPushEbp = 0x55;
constexpr BYTE kBranchTarget[] = {0xF3, 0x0F, 0x1E, 0xFB};  // endbr32, before the frame is made
constexpr BYTE kReturn = 0xC3;
constexpr BYTE kReturnAndPop = 0xC2;
constexpr BYTE kLoad = 0x8B;  // mov (%esp), any register
constexpr BYTE kLoadMask = 0xC7;
constexpr BYTE kLoadFromStack = 0x04;
constexpr BYTE kStackPointer = 0x24;
constexpr BYTE kCallRelative = 0xE8;
constexpr uint32_t kCallRelativeBytes = 5;
constexpr BYTE kCallIndirect = 0xFF;
constexpr BYTE kIndirectMask = 0x38;  // the second byte's middle bits tell a call from other instructions
constexpr BYTE kIndirectIsCall = 0x10;
constexpr uint32_t kLongestIndirect = 7;

/// How far a function has got with making its frame: before "push ebp" (or at its return), between it and "mov ebp,
/// esp", or behind (or it makes none; nothing is known about it then).
enum class FrameProgress { kNone, kPushed, kWhole };

/// Whether the function is about to return, from a frame that it has taken back or, as those that load their caller's
/// address into a register, never made.
bool IsReturn(const WalkMemory& memory, uint32_t address) {
  BYTE code[4];
  if (!memory.Read(address, code, 1)) return false;
  if (code[0] == kReturn || code[0] == kReturnAndPop) return true;
  return memory.Read(address, code, sizeof code) && code[0] == kLoad && (code[1] & kLoadMask) == kLoadFromStack &&
         code[2] == kStackPointer && code[3] == kReturn;
}

FrameProgress FindProgress(const WalkMemory& memory, uint32_t address) {
  if (IsReturn(memory, address)) return FrameProgress::kNone;
  FoundFunction function;
  if (!FindFunction(address, function, nullptr, 0)) return FrameProgress::kWhole;
  uint32_t entry = function.address;
  BYTE code[sizeof kBranchTarget];
  if (memory.Read(entry, code, sizeof code) && std::memcmp(code, kBranchTarget, sizeof code) == 0) {
    if (address == entry) return FrameProgress::kNone;
    entry += sizeof kBranchTarget;
  }
  if (address == entry) return FrameProgress::kNone;
  if (address == entry + 1 && memory.Read(entry, code, 1) && code[0] == kPushEbp) return FrameProgress::kPushed;
  return FrameProgress::kWhole;
}

/// The caller of a frame whose return address lies at `place`.
bool ReturnTo(const WalkMemory& memory, const UnwindRegisters& registers, uint32_t place, CallerFrame& caller) {
  uint32_t address;
  if (!memory.ReadWord(place, address)) return false;
  caller = {};
  caller.frameAddress = place + kWordBytes;
  caller.isFrameAddressKnown = true;
  caller.registers.Set(kEip, address);
  caller.registers.Set(kEsp, caller.frameAddress);
  if (registers.IsKnown(kEbp)) caller.registers.Set(kEbp, registers.Get(kEbp));
  return true;
}

bool IsBehindCall(const WalkMemory& memory, uint32_t address) {
  BYTE code[kLongestIndirect];
  if (!memory.Read(address - sizeof code, code, sizeof code)) return false;
  if (code[sizeof code - kCallRelativeBytes] == kCallRelative) return true;
  for (uint32_t bytes = 2; bytes <= kLongestIndirect; ++bytes) {
    const BYTE* instruction = code + sizeof code - bytes;
    if (instruction[0] == kCallIndirect && (instruction[1] & kIndirectMask) == kIndirectIsCall) return true;
  }
  return false;
}

}  // namespace

bool IsCode(uint32_t address) {
  if (IsModuleCode(address)) return true;
  MEMORY_BASIC_INFORMATION region;
  return VirtualQuery(reinterpret_cast<const void*>(address), &region, sizeof region) != 0 &&
         (region.Protect & kExecutable) != 0;
}

bool StepFromBadCall(const WalkMemory& memory, const UnwindRegisters& registers, CallerFrame& caller) {
  return !IsCode(registers.Get(kEip)) && ReturnTo(memory, registers, registers.Get(kEsp), caller) &&
         IsModuleCode(caller.registers.Get(kEip));
}

bool StepByFramePointer(const WalkMemory& memory, const UnwindRegisters& registers, bool wasInterrupted,
                        CallerFrame& caller) {
  const FrameProgress progress = wasInterrupted ? FindProgress(memory, registers.Get(kEip)) : FrameProgress::kWhole;
  uint32_t frame = registers.Get(kEbp);
  if (progress != FrameProgress::kWhole)
    frame = progress == FrameProgress::kNone ? registers.Get(kEsp) - kWordBytes : registers.Get(kEsp);
  if (!registers.IsKnown(kEbp) || !ReturnTo(memory, registers, frame + kWordBytes, caller)) return false;
  uint32_t callersFrame;
  if (progress == FrameProgress::kWhole) {
    if (!memory.ReadWord(frame, callersFrame)) return false;
    caller.registers.Set(kEbp, callersFrame);
  }
  return IsCode(caller.registers.Get(kEip));
}

bool StepByScan(const WalkMemory& memory, const UnwindRegisters& registers, CallerFrame& caller) {
  const uint32_t start = registers.Get(kEsp);
  if (!registers.IsKnown(kEsp) || start % kWordBytes != 0) return false;
  for (uint32_t place = start; place - start < kScanBytes; place += kWordBytes) {
    uint32_t address;
    if (!memory.ReadWord(place, address)) return false;
    if (IsModuleCode(address) && IsBehindCall(memory, address)) return ReturnTo(memory, registers, place, caller);
  }
  return false;
}

}  // namespace qel::layer
