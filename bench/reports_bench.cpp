// Reports, stack walk.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "bench/harness.h"
#include "qelibaselib/qelibaselib.h"

namespace {

// Frame chain, symbol look-up by the loader's tables, one flushed line for each frame.
void WalkByHand(FILE* stream, const CONTEXT& context) {
  auto frame = context.Ebp;
  auto pc = context.Eip;
  for (int depth = 0; frame != 0 && depth < 200; ++depth) {
    Dl_info info;
    if (dladdr(reinterpret_cast<void*>(pc), &info) && info.dli_sname)
      std::fprintf(stream, "0x%08lx %s() + 0x%lx\n", pc, info.dli_sname,
                   pc - reinterpret_cast<unsigned long>(info.dli_saddr));
    else
      std::fprintf(stream, "0x%08lx\n", pc);
    std::fflush(stream);
    const auto* words = reinterpret_cast<const unsigned long*>(frame);
    if (words[0] <= frame) break;
    pc = words[1];
    frame = words[0];
  }
  // The raw stack dump that follows a walk.
  const auto* stack = reinterpret_cast<const unsigned char*>(context.Esp);
  for (int line = 0; line < 64; ++line) {
    std::fprintf(stream, "%p    ", static_cast<const void*>(stack));
    for (int i = 0; i < 16; ++i) std::fprintf(stream, "%s%02x ", i % 4 == 0 && i ? "- " : "", *stack++);
    std::fprintf(stream, "\n");
    std::fflush(stream);
  }
}

__attribute__((noipa)) void AtDepth(int depth, const std::function<void()>& body) {
  if (depth == 0)
    body();
  else
    AtDepth(depth - 1, body);
  __asm__ __volatile__("" ::: "memory");
}

}  // namespace

BENCHMARK_GROUP(reports) {
  FILE* ours = std::fopen(bench::Path("walk").c_str(), "w");
  FILE* hand = std::fopen(bench::Path("walk.hand").c_str(), "w");
  AtDepth(28, [&] {
    CONTEXT context{};
    RtlCaptureContext(&context);
    bench::Compare(
        "stack walk of 30 frames with raw dump", 1.5,
        [&] {
          std::rewind(ours);
          StackWalkLogOut(ours, GetCurrentProcess(), GetCurrentThread(), &context);
        },
        [&] {
          std::rewind(hand);
          WalkByHand(hand, context);
        });
    bench::Absolute("exception report", 3000,
                    [&] {
                      EXCEPTION_RECORD record{};
                      record.ExceptionCode = 0xC0000005;
                      VemoExceptLogOut(L"bench", "bench", &record, &context, __LINE__, __FILE__);
                    },
                    {11, 20});
  });
  std::fclose(ours);
  std::fclose(hand);
  bench::Absolute("status report", 2000, [] { VemoModuleStatusLogOut(L"bench", "bench"); }, {11, 20});
}
