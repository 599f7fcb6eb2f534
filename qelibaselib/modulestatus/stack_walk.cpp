#include "qelibaselib/modulestatus/stack_walk.h"

#include <chrono>
#include <cstddef>
#include <mutex>

#include "qelibaselib/base/log_layout.h"
#include "qelibaselib/memory/memory.h"
#include "qelibaselib/modulestatus/byte_dump.h"
#include "qelibaselib/modulestatus/heap_check.h"
#include "qelibaselib/modulestatus/lighter_guard.h"
#include "qelibaselib/modulestatus/source_name.h"

namespace qel::report {
namespace {

constexpr int kHeapCheckAtEntry = 106;
constexpr int kNoContextLine = 122;
constexpr int kNoSymbolBufferLine = 127;
constexpr int kNotEnoughMemoryLine = 130;
constexpr int kClearFrameLine = 136;
constexpr int kHeapCheckAtExit = 213;
constexpr DWORD kSymbolBufferBytes = 10000;
constexpr DWORD kSymbolNameBytes = kSymbolBufferBytes - sizeof(IMAGEHLP_SYMBOL);
static_assert(kSymbolNameBytes == 9976);
constexpr int kRawDumpLines = 64;

/// The debug help takes one thread at a time. A walk that cannot have it soon prints addresses alone: its owner may be
/// a thread that was ended inside.
std::timed_mutex g_debugHelp;
constexpr std::chrono::seconds kDebugHelpTimeout{10};

/// The record that the debug help describes a symbol in, its name behind it.
class SymbolBuffer {
 public:
  SymbolBuffer() : symbol_(static_cast<IMAGEHLP_SYMBOL*>(GlobalAlloc(GMEM_FIXED, kSymbolBufferBytes))) {}
  SymbolBuffer(const SymbolBuffer&) = delete;
  SymbolBuffer& operator=(const SymbolBuffer&) = delete;
  ~SymbolBuffer() {
    if (symbol_) GlobalFree(symbol_);
  }
  IMAGEHLP_SYMBOL* get() const { return symbol_; }

 private:
  IMAGEHLP_SYMBOL* const symbol_;
};

class SymbolSession {
 public:
  explicit SymbolSession(HANDLE process) : lock_(g_debugHelp, kDebugHelpTimeout), process_(process) {}
  SymbolSession(const SymbolSession&) = delete;
  SymbolSession& operator=(const SymbolSession&) = delete;
  ~SymbolSession() {
    if (initialized_) SymCleanup(process_);
  }
  /// Apart from the constructor: where the debug help faults, the sections that need no symbols still follow.
  void Start() { initialized_ = lock_.owns_lock() && SymInitialize(process_, nullptr, TRUE); }

 private:
  const std::unique_lock<std::timed_mutex> lock_;
  const HANDLE process_;
  bool initialized_ = false;
};

void SetFlat(ADDRESS& address, DWORD offset) {
  address.Offset = offset;
  address.Mode = AddrModeFlat;
}

/// Tells a walk that would never end: it follows a chain that leads back into itself, or the debug help gives the same
/// frame for ever. A frame is compared with the one before and with one that is kept, which moves on after 1, 2, 4...
/// frames, so that every circle is noticed.
class LoopDetector {
 public:
  bool ComesBack(const STACKFRAME& frame) {
    const Place place{frame.AddrPC.Offset, frame.AddrFrame.Offset};
    if (place == last_ || place == kept_) return true;
    last_ = place;
    if (++frames_ == span_) {
      kept_ = place;
      frames_ = 0;
      span_ *= 2;
    }
    return false;
  }

 private:
  struct Place {
    DWORD counter, frame;
    bool operator==(const Place&) const = default;
  };
  Place last_{};
  Place kept_{};
  DWORD frames_ = 0;
  DWORD span_ = 1;
};

void WriteFrame(ReportStream& out, HANDLE process, DWORD address, IMAGEHLP_SYMBOL* symbol) {
  // The size is that of the whole block: the debug help accepts any that is large enough.
  symbol->SizeOfStruct = kSymbolBufferBytes;
  symbol->MaxNameLength = kSymbolNameBytes;
  DWORD displacement = 0;
  if (SymGetSymFromAddr(process, address, &displacement, symbol)) {
    out.Print("0x%08lx %s() + 0x%lx\n", address, symbol->Name, displacement);
  } else {
    out.Print("0x%08lx\n", address);
  }
}

void WriteFrames(ReportStream& out, HANDLE process, HANDLE thread, const CONTEXT& context, IMAGEHLP_SYMBOL* symbol) {
  STACKFRAME frame;
  _MemSet(&frame, 0, sizeof frame, kClearFrameLine, kSourceName);
  SetFlat(frame.AddrPC, context.Eip);
  SetFlat(frame.AddrStack, context.Esp);
  SetFlat(frame.AddrFrame, context.Ebp);
  LoopDetector loop;  // the only other end: a walk has no limit, and a chain may lead anywhere
  while (StackWalk(IMAGE_FILE_MACHINE_I386, process, thread, &frame, nullptr, nullptr, SymFunctionTableAccess,
                   SymGetModuleBase, nullptr) &&
         frame.AddrFrame.Offset != 0 && !loop.ComesBack(frame)) {
    WriteFrame(out, process, frame.AddrPC.Offset, symbol);
  }
}

/// Returns whether the whole line could be read.
bool WriteRawLine(ReportStream& out, DWORD& address) {
  char start[16];
  FormatText(start, sizeof start, "%p    ", reinterpret_cast<void*>(address));
  DumpLine line;
  line.Append(start);
  bool readable = true;
  for (int position = 0; position < kBytesPerLine; ++position, ++address) {
    line.AppendGroupMark(position);
    BYTE value;
    readable = ReadByte(address, value);
    if (!readable) break;
    line.AppendByte(value);
    line.Append(" ");
  }
  line.PrintTo(out);
  return readable;
}

void WriteRawStack(ReportStream& out, DWORD address) {
  out.Print(layout::kRawStackHeading);
  for (int line = 0; line < kRawDumpLines && WriteRawLine(out, address); ++line) {
  }
}

void WriteWalkAndStack(ReportStream& out, HANDLE process, HANDLE thread, const CONTEXT& context) {
  const SymbolBuffer buffer;
  if (!buffer.get()) {
    WriteAssertion(FixedPosition(kNoSymbolBufferLine));
    out.Print("Not enough memory(%d)\n", kNotEnoughMemoryLine);
    return;
  }
  SymbolSession symbols(process);
  GuardedReport(QEL_HERE, "StackWalkLogOut", [&] { symbols.Start(); });
  GuardedReport(QEL_HERE, "StackWalkLogOut", [&] { WriteFrames(out, process, thread, context, buffer.get()); });
  GuardedReport(QEL_HERE, "StackWalkLogOut", [&] { WriteRawStack(out, context.Esp); });
}

}  // namespace
}  // namespace qel::report

using namespace qel::report;

int StackWalkLogOut(std::FILE* stream, HANDLE process, HANDLE thread, const CONTEXT* context) {
  int heapCode = _HEAPOK;
  GuardedReport(QEL_HERE, "StackWalkLogOut", [&] {
    ReportStream out(stream);
    CheckHeap(kHeapCheckAtEntry);
    out.Print("\n");
    out.Print(qel::layout::kStackWalkHeading);
    if (!context) {
      out.Print("Context not exist(%d)\n", kNoContextLine);
      return;
    }
    WriteWalkAndStack(out, process, thread, *context);
    heapCode = CheckHeap(kHeapCheckAtExit);
  });
  return heapCode;
}
