// version_resource_seeds FOLDER [MODULE...]: what the fuzzer starts from. Small modules as they are; of every module
// its version resource in a smallest one, 32- and 64-bit.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "qelibaselib/platform/linux/modules/version_resource.h"
#include "test/fileversion/module_builder.h"

namespace {

using qel::test::ByteVector;

constexpr size_t kSmallBytes = 24 * 1024;

std::filesystem::path g_folder;
int g_count = 0;

void Write(const ByteVector& bytes) {
  std::ofstream file(g_folder / std::to_string(g_count++), std::ios::binary);
  file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

void WriteModules(const ByteVector& resource) {
  for (const bool is64Bit : {false, true}) Write(qel::test::BuildModule(resource, {.is64Bit = is64Bit}));
}

void WriteFrom(const char* module) {
  std::ifstream file(module, std::ios::binary);
  const ByteVector bytes{std::istreambuf_iterator<char>(file), {}};
  if (bytes.size() <= kSmallBytes) Write(bytes);
  DWORD error = 0;
  const auto resource = qel::layer::FindVersionResource(bytes, error);
  if (!resource.empty()) WriteModules({resource.begin(), resource.end()});
}

}  // namespace

int main(int argumentCount, char** arguments) {
  if (argumentCount < 2) return 2;
  g_folder = arguments[1];
  WriteModules(
      qel::test::BuildVersionResource({{{"040904e4", {{"CompanyName", u"ACME"}, {"FileVersion", u"\u20AC 1.2.3.4"}}},
                                        {"041103a4", {{"Comments", u""}}}},
                                       {{0x0409, 0x04E4}, {0x0411, 0x03A4}}}));
  for (int i = 2; i < argumentCount; ++i) WriteFrom(arguments[i]);
  std::printf("%d seeds\n", g_count);
  return 0;
}
