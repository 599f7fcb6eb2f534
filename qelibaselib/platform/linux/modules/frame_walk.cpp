#include <cstring>
#include <initializer_list>

#include "qelibaselib/platform/linux/modules/symbol_store.h"
#include "qelibaselib/platform/linux/win32/dbghelp.h"
#include "qelibaselib/platform/linux/win32/libloaderapi.h"
#include "qelibaselib/platform/linux/win32/memoryapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

constexpr DWORD kWordBytes = 4;
constexpr DWORD kExecutable = PAGE_EXECUTE | PAGE_EXECUTE_READ | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
constexpr BYTE kPushEbp = 0x55;
constexpr BYTE kBranchTarget[] = {0xF3, 0x0F, 0x1E, 0xFB};  // endbr32, before the frame is made

/// What a walk keeps between calls, in the words of the frame record that are the walker's own.
struct WalkState {
  DWORD started;
  DWORD nextFrame;
  DWORD unused;
};
static_assert(sizeof(WalkState) == sizeof(STACKFRAME::Reserved));

class Memory {
 public:
  Memory(HANDLE process, PREAD_PROCESS_MEMORY_ROUTINE read) : process_(process), read_(read) {}
  // A walk looks at other functions' frames, the redzones between their variables included: no intrinsic copy, whose
  // arguments a sanitizer checks.
  __attribute__((no_sanitize_address)) bool Read(DWORD address, void* bytes, DWORD count) const {
    if (read_) {
      DWORD taken = 0;
      return read_(process_, address, bytes, count, &taken) && taken == count;
    }
    if (IsBadReadPtr(reinterpret_cast<const void*>(address), count)) return false;
    const auto* from = reinterpret_cast<const volatile BYTE*>(address);
    for (DWORD i = 0; i < count; ++i) static_cast<BYTE*>(bytes)[i] = from[i];
    return true;
  }
  bool ReadWord(DWORD address, DWORD& word) const { return Read(address, &word, sizeof word); }

 private:
  const HANDLE process_;
  const PREAD_PROCESS_MEMORY_ROUTINE read_;
};

bool IsExecutable(DWORD address) {
  MEMORY_BASIC_INFORMATION region;
  return VirtualQuery(reinterpret_cast<const void*>(address), &region, sizeof region) != 0 &&
         (region.Protect & kExecutable) != 0;
}

/// How far a function has got with making its frame: before "push ebp", between it and "mov ebp, esp", or behind (or it
/// makes none; nothing is known about it then).
enum class Frame { kNone, kPushed, kWhole };

Frame FrameProgress(const Memory& memory, DWORD address) {
  FoundFunction function;
  if (!FindFunction(address, function, nullptr, 0)) return Frame::kWhole;
  DWORD entry = function.address;
  BYTE code[sizeof kBranchTarget];
  if (memory.Read(entry, code, sizeof code) && std::memcmp(code, kBranchTarget, sizeof code) == 0) {
    if (address == entry) return Frame::kNone;
    entry += sizeof kBranchTarget;
  }
  if (address == entry) return Frame::kNone;
  if (address == entry + 1 && memory.Read(entry, code, 1) && code[0] == kPushEbp) return Frame::kPushed;
  return Frame::kWhole;
}

/// Calling through a bad pointer leaves the program counter outside any code, and the caller's address on top of the
/// stack.
bool IsBadCall(const Memory& memory, DWORD counter, DWORD stack) {
  DWORD caller;
  return FindModuleBase(counter) == 0 && !IsExecutable(counter) && memory.ReadWord(stack, caller) &&
         FindModuleBase(caller) != 0;
}

/// Reads what the frame leads on to. One that cannot be read is the last: it has no return address.
bool FollowFrame(const Memory& memory, STACKFRAME& frame, WalkState& state) {
  if (memory.ReadWord(frame.AddrFrame.Offset, state.nextFrame) &&
      memory.ReadWord(frame.AddrFrame.Offset + kWordBytes, frame.AddrReturn.Offset)) {
    return true;
  }
  state.nextFrame = 0;
  frame.AddrReturn.Offset = 0;
  return false;
}

/// The first frame. One that its function has not made yet is placed where it would be.
bool Start(const Memory& memory, STACKFRAME& frame, WalkState& state) {
  state.started = 1;
  const DWORD counter = frame.AddrPC.Offset;
  const DWORD stack = frame.AddrStack.Offset;
  const Frame made = IsBadCall(memory, counter, stack) ? Frame::kNone : FrameProgress(memory, counter);
  if (made == Frame::kWhole) return FollowFrame(memory, frame, state) || FindModuleBase(counter) != 0;
  const DWORD callersFrame = frame.AddrFrame.Offset;
  frame.AddrFrame.Offset = made == Frame::kNone ? stack - kWordBytes : stack;
  if (!FollowFrame(memory, frame, state)) return false;
  state.nextFrame = callersFrame;
  return true;
}

/// The caller's frame.
bool Advance(const Memory& memory, STACKFRAME& frame, WalkState& state) {
  if (frame.AddrReturn.Offset == 0) return false;
  frame.AddrPC.Offset = frame.AddrReturn.Offset;
  frame.AddrStack.Offset = frame.AddrFrame.Offset + 2 * kWordBytes;
  frame.AddrFrame.Offset = state.nextFrame;
  FollowFrame(memory, frame, state);
  return true;
}

DWORD Walk(const Memory& memory, STACKFRAME& frame) {
  WalkState state;
  std::memcpy(&state, frame.Reserved, sizeof state);
  const bool found = state.started ? Advance(memory, frame, state) : Start(memory, frame, state);
  if (!found) return ERROR_MOD_NOT_FOUND;
  std::memcpy(frame.Reserved, &state, sizeof state);
  for (ADDRESS* address : {&frame.AddrPC, &frame.AddrReturn, &frame.AddrFrame, &frame.AddrStack}) {
    address->Mode = AddrModeFlat;
  }
  if (!memory.Read(frame.AddrFrame.Offset + 2 * kWordBytes, frame.Params, sizeof frame.Params)) {
    std::memset(frame.Params, 0, sizeof frame.Params);
  }
  frame.FuncTableEntry = nullptr;
  frame.Far = FALSE;
  frame.Virtual = TRUE;
  return ERROR_SUCCESS;
}

}  // namespace
}  // namespace qel::layer

BOOL WINAPI StackWalk(DWORD machine, HANDLE process, HANDLE, LPSTACKFRAME frame, PVOID,
                      PREAD_PROCESS_MEMORY_ROUTINE readMemory, PFUNCTION_TABLE_ACCESS_ROUTINE, PGET_MODULE_BASE_ROUTINE,
                      PTRANSLATE_ADDRESS_ROUTINE) {
  DWORD error = ERROR_INVALID_PARAMETER;
  if (machine == IMAGE_FILE_MACHINE_I386) error = qel::layer::Walk(qel::layer::Memory(process, readMemory), *frame);
  if (error == ERROR_SUCCESS) return TRUE;
  SetLastError(error);
  return FALSE;
}
