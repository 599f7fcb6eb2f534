#include "qelibaselib/modulestatus/code_dump.h"

#include "qelibaselib/base/log_layout.h"
#include "qelibaselib/modulestatus/byte_dump.h"
#include "qelibaselib/modulestatus/heap_check.h"
#include "qelibaselib/modulestatus/lighter_guard.h"

namespace qel::report {
namespace {

constexpr int kHeapCheckAtEntry = 226;
constexpr int kHeapCheckAtExit = 265;
constexpr int kLines = 40;
constexpr DWORD kBytesBefore = 320;

void DumpCodeLine(ReportStream& out, DWORD& address, DWORD faultAddress) {
  char start[16];
  FormatText(start, sizeof start, "%s%p    ", address == faultAddress ? ">" : "", reinterpret_cast<void*>(address));
  DumpLine line;
  line.Append(start);
  for (int position = 0; position < kBytesPerLine; ++position) {
    line.AppendGroupMark(position);
    BYTE value;
    if (ReadByte(address, value)) {
      line.AppendByte(value);
      line.Append(" ");
      ++address;
    } else {
      line.Append("?? ");
    }
  }
  line.PrintTo(out);
}

}  // namespace

void DumpCode(ReportStream& out, DWORD address) {
  GuardedReport(QEL_HERE, "DumpCode", [&] {
    CheckHeap(kHeapCheckAtEntry);
    out.Print("\n");
    out.Print(layout::kCodeHeading);
    DWORD current = address - kBytesBefore;
    for (int line = 0; line < kLines; ++line) DumpCodeLine(out, current, address);
    CheckHeap(kHeapCheckAtExit);
  });
}

}  // namespace qel::report
