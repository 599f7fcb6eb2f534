// Mappings, views, blocks.
#include <malloc.h>

#include "test/platform/recorded/bind_call.h"

namespace qel::test {
namespace {

// Where `base` lies is another place each time.
std::string Region(const void* address, const void* base) {
  MEMORY_BASIC_INFORMATION region = {};
  if (VirtualQuery(address, &region, sizeof region) == 0) return "none" + ShowError(GetLastError());
  const auto from = [&](const void* place) {
    return static_cast<long>(static_cast<const char*>(place) - static_cast<const char*>(base));
  };
  char text[200];
  std::snprintf(text, sizeof text, "at %ld of %ld made %lu bytes %lu state 0x%lX protection %lu type 0x%lX",
                from(region.BaseAddress), from(region.AllocationBase), region.AllocationProtect,
                static_cast<unsigned long>(region.RegionSize), region.State, region.Protect, region.Type);
  return region.State == MEM_FREE ? "free" : text;
}

template <class Free>
RecordedCall Forgetting(Free free) {
  return [call = Bind(free)](CallScope& scope, const std::vector<std::string>& words) {
    std::string answer = call(scope, words);
    if (answer == "1") scope.Forget(scope.Value<void*>(words[1].substr(0, words[1].find('+'))));
    return answer;
  };
}

const CallRegistration kCalls([](auto& calls) {
  constexpr Closer kClose = [](void* handle) { CloseHandle(handle); };
  BIND(CreateFileMappingW, kClose);
  BIND(FlushViewOfFile);
  BIND(GlobalAlloc, [](void* block) { GlobalFree(block); });
  BIND(MapViewOfFile, &ReleaseView);
  BIND(OpenFileMappingW, kClose);
  BIND(VirtualAlloc, &ReleaseBlock);
  BIND(VirtualLock);
  BIND(VirtualProtect);
  BIND(VirtualUnlock);
  calls["GlobalFree"] = BindLambda([](void* block) { return GlobalFree(block); });
  calls["UnmapViewOfFile"] = Forgetting(&UnmapViewOfFile);
  calls["VirtualFree"] = Forgetting(&VirtualFree);
  calls["_heapchk"] = BindLambda([] { return _heapchk(); });
  calls["query-shortly"] = BindLambda([] {
    MEMORY_BASIC_INFORMATION region;
    return VirtualQuery(nullptr, &region, sizeof region - 1);
  });
  calls["region"] = BindLambda(&Region);
  calls["peek"] = BindLambda(
      [](const void* address, DWORD bytes) { return Quoted(std::string(static_cast<const char*>(address), bytes)); });
  calls["poke"] = BindLambda([](void* address, const char* byte) {
    *static_cast<char*>(address) = *byte;
    return std::string("done");
  });
  calls["is-zero"] = BindLambda([](const void* address, DWORD bytes) {
    return std::string(std::string(static_cast<const char*>(address), bytes) == std::string(bytes, '\0') ? "yes"
                                                                                                         : "no");
  });
  calls["is-low-and-granular"] = BindLambda([](const void* address) {
    const auto place = reinterpret_cast<uintptr_t>(address);
    return std::string(place < 0x80000000 && place % 0x10000 == 0 ? "yes" : "no");
  });
});

}  // namespace
}  // namespace qel::test
