// The walk of a stack: unwind tables first, since they hold for code without frame pointers and at every instruction;
// where a module has none, the chain of frame pointers; where that leads nowhere, what looks like a return address.
//
// The walk of a smashed stack must end, and must not fault: every word is probed, a caller's frame must lie above its
// own callee's, and the number of frames is limited. Nothing is allocated. The walk's state lies in the caller's
// record.
#include "qelibaselib/platform/linux/modules/frame_walk.h"

#include <cstring>
#include <initializer_list>
#include <utility>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/modules/frame_guess.h"
#include "qelibaselib/platform/linux/modules/symbol_store.h"
#include "qelibaselib/platform/linux/win32/errhandlingapi.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {
namespace {

constexpr DWORD kWordBytes = 4;
constexpr DWORD kMostFrames = 2000;

/// What a walk keeps between calls, in the part of the frame record that is for the kernel's debugger on Windows.
struct WalkState {
  UnwindRegisters registers;  // of the frame that comes next
  DWORD frames;
  DWORD frameAddress;  // of the last frame
  bool isInterrupted;  // the frame that comes next stands at an instruction that it has not executed yet
  bool mustRise;       // false behind a signal frame, which may have changed the stack
  bool isGuessed;      // no table told the registers: where tables lead nowhere now, the stack may still be sound
};
static_assert(sizeof(WalkState) <= sizeof(KDHELP));

struct LastFrame {
  DWORD address;
  bool isReturnAddress;
};
thread_local constinit LastFrame t_lastFrame{};
thread_local constinit UnwindRegisters t_lastFault{};

UnwindRegisters RegistersOf(const CONTEXT& context) {
  UnwindRegisters registers;
  const std::pair<UnwindColumn, DWORD> values[] = {{kEax, context.Eax}, {kEcx, context.Ecx}, {kEdx, context.Edx},
                                                   {kEbx, context.Ebx}, {kEsp, context.Esp}, {kEbp, context.Ebp},
                                                   {kEsi, context.Esi}, {kEdi, context.Edi}, {kEip, context.Eip}};
  for (const auto& [column, value] : values) registers.Set(column, value);
  return registers;
}

UnwindRegisters FirstRegisters(const STACKFRAME& frame, const CONTEXT* context) {
  UnwindRegisters known;
  known.Set(kEip, frame.AddrPC.Offset);
  known.Set(kEsp, frame.AddrStack.Offset);
  known.Set(kEbp, frame.AddrFrame.Offset);
  const UnwindRegisters all = context ? RegistersOf(*context) : t_lastFault;
  for (const uint32_t column : {kEip, kEsp, kEbp}) {
    if (all.Get(column) != known.Get(column)) return known;
  }
  return all.IsKnown(kEip) ? all : known;
}

void Start(const STACKFRAME& frame, const CONTEXT* context, WalkState& state) {
  state = {};
  state.registers = FirstRegisters(frame, context);
  state.isInterrupted = true;
  RefreshModules();
}

bool FindCallerByGuess(const WalkMemory& memory, const WalkState& state, CallerFrame& caller) {
  return StepByFramePointer(memory, state.registers, state.isInterrupted, caller) ||
         StepByScan(memory, state.registers, caller);
}

StepResult FindCallerInModule(const WalkMemory& memory, WalkState& state, CallerFrame& caller) {
  UnwindTables tables;
  StepResult result = StepResult::kNoTable;
  if (FindUnwindTables(state.registers.Get(kEip), tables))
    result = StepByTables(memory, tables, state.registers, state.isInterrupted, caller);
  if (result == StepResult::kNoTable) {
    state.isGuessed = true;
    return FindCallerByGuess(memory, state, caller) ? StepResult::kCaller : StepResult::kLost;
  }
  // Assembler code may move the stack without telling: the C library's memcpy does. A return address of 0 is an end.
  const DWORD counter = caller.registers.Get(kEip);
  const bool isWrong = result == StepResult::kCaller ? counter != 0 && !IsCode(counter) : state.isGuessed;
  CallerFrame guessed;
  if (result == StepResult::kOutermost || !isWrong || !StepByScan(memory, state.registers, guessed)) return result;
  caller = guessed;
  state.isGuessed = true;
  return StepResult::kCaller;
}

StepResult FindCallerOutsideModules(const WalkMemory& memory, WalkState& state, CallerFrame& caller) {
  if (state.isInterrupted && StepFromBadCall(memory, state.registers, caller)) return StepResult::kCaller;
  if (!state.isInterrupted && !IsCode(state.registers.Get(kEip))) return StepResult::kLost;  // the stack is smashed
  state.isGuessed = true;
  return FindCallerByGuess(memory, state, caller) ? StepResult::kCaller : StepResult::kLost;
}

/// Fills the record with the frame that comes next and prepares its caller's. False when there is no frame.
bool ShowFrame(const WalkMemory& memory, STACKFRAME& frame, WalkState& state) {
  const UnwindRegisters& registers = state.registers;
  const DWORD counter = registers.Get(kEip);
  const bool isInModule = IsModuleCode(counter);
  CallerFrame caller;
  const StepResult result =
      isInModule ? FindCallerInModule(memory, state, caller) : FindCallerOutsideModules(memory, state, caller);
  if (state.frames == 0 && result != StepResult::kCaller && FindModuleBase(counter) == 0) return false;
  const bool hasRisen = !state.mustRise || caller.frameAddress > state.frameAddress;
  const bool hasCaller = result == StepResult::kCaller && hasRisen;
  t_lastFrame = {counter, !state.isInterrupted};
  frame.AddrPC.Offset = counter;
  frame.AddrStack.Offset = registers.Get(kEsp);
  frame.AddrFrame.Offset = caller.isFrameAddressKnown ? caller.frameAddress - 2 * kWordBytes : registers.Get(kEbp);
  frame.AddrReturn.Offset = hasCaller ? caller.registers.Get(kEip) : 0;
  state.frameAddress = caller.frameAddress;
  state.isInterrupted = caller.wasInterrupted;
  state.mustRise = !caller.wasInterrupted;
  state.registers = caller.registers;
  return true;
}

void FillRest(const WalkMemory& memory, STACKFRAME& frame) {
  for (ADDRESS* address : {&frame.AddrPC, &frame.AddrReturn, &frame.AddrFrame, &frame.AddrStack}) {
    address->Mode = AddrModeFlat;
  }
  if (!memory.Read(frame.AddrFrame.Offset + 2 * kWordBytes, frame.Params, sizeof frame.Params)) {
    std::memset(frame.Params, 0, sizeof frame.Params);
  }
  frame.FuncTableEntry = nullptr;
  frame.Far = FALSE;
  frame.Virtual = TRUE;
}

DWORD Walk(const WalkMemory& memory, STACKFRAME& frame, const CONTEXT* context) {
  WalkState state;
  if (frame.Reserved[0] == 0) {
    Start(frame, context, state);
  } else {
    std::memcpy(static_cast<void*>(&state), &frame.KdHelp, sizeof state);
    if (frame.AddrReturn.Offset == 0 || state.frames == kMostFrames) return ERROR_MOD_NOT_FOUND;
  }
  if (!ShowFrame(memory, frame, state)) return ERROR_MOD_NOT_FOUND;
  ++state.frames;
  std::memcpy(&frame.KdHelp, &state, sizeof state);
  frame.Reserved[0] = 1;
  FillRest(memory, frame);
  return ERROR_SUCCESS;
}

}  // namespace

bool IsReturnAddressOfWalk(DWORD address) { return t_lastFrame.isReturnAddress && t_lastFrame.address == address; }

void RememberFault(const CONTEXT& context) { t_lastFault = RegistersOf(context); }

}  // namespace qel::layer

BOOL WINAPI StackWalk(DWORD machine, HANDLE process, HANDLE, LPSTACKFRAME frame, PVOID context,
                      PREAD_PROCESS_MEMORY_ROUTINE readMemory, PFUNCTION_TABLE_ACCESS_ROUTINE, PGET_MODULE_BASE_ROUTINE,
                      PTRANSLATE_ADDRESS_ROUTINE) {
  using namespace qel::layer;
  if (machine != IMAGE_FILE_MACHINE_I386) return ReportResult(ERROR_INVALID_PARAMETER);
  const WalkMemory memory = readMemory ? WalkMemory(process, readMemory) : OwnMemory();
  return ReportResult(Walk(memory, *frame, static_cast<const CONTEXT*>(context)));
}
