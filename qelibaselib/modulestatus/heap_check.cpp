#include "qelibaselib/modulestatus/heap_check.h"

#include "qelibaselib/base/format.h"
#include "qelibaselib/log/log_channel.h"
#include "qelibaselib/modulestatus/source_name.h"

namespace qel::report {
namespace {
constexpr int kHeapAssertionLine = 62;
constexpr std::size_t kTextCharacters = 128;
}  // namespace

int CheckHeap(int line) {
  const int code = _heapchk();
  if (code != _HEAPOK) {
    char text[kTextCharacters];
    FormatText(text, sizeof text, "Error : %s(%d), _HeapCheck(), %d", kSourceName, line, code);
    WriteAssertion(FixedPosition(kHeapAssertionLine), text);
  }
  return code;
}

}  // namespace qel::report
