// demo --work FOLDER [IMAGE_FOLDER [MODULE]]: a host program that uses the library for its everyday work. Everything
// that it makes lies in FOLDER; without an image folder, or with an empty one, it makes a few images.
#include <omp.h>

#include <cstdio>

#include "demo/image_folder.h"
#include "demo/second_process.h"
#include "demo/steps.h"
#include "qelibaselib/qelibaselib.h"

namespace {

Folders MakeFolders(const std::wstring& work) {
  Folders folders{work, Join(work, L"log"), Join(work, L"input"), Join(work, L"output")};
  VemoSetLogPath(folders.log.c_str());
  VemoSetTmpPath(work.c_str());
  VemoSetDataPath(folders.output.c_str());
  VemoSetBasePath(work.c_str());
  for (const auto& folder : {folders.log, folders.input, folders.output})
    SHCreateDirectoryExX(__LINE__, __FILE__, folder.c_str());
  return folders;
}

}  // namespace

int main(int argumentCount, char** argumentValues) {
  const std::vector<std::string> arguments(argumentValues + 1, argumentValues + argumentCount);
  int exitCode = 0;
  if (PlayRole(arguments, exitCode)) return exitCode;
  if (arguments.size() < 2 || arguments[0] != "--work") {
    std::fprintf(stderr, "usage: demo --work FOLDER [IMAGE_FOLDER [MODULE]]\n");
    return 2;
  }
  char program[MAX_PATH];
  GetModuleFileNameA(nullptr, program, sizeof program);
  VemoSetExePath(Wide(program).c_str());
  const Folders folders = MakeFolders(Wide(arguments[1]));

  omp_set_dynamic(1);       // the policy gives one thread to a process that has not asked for more
  VemoOMPSetNumThreads(0);  // as many as there are processors
  std::vector<std::wstring> images = FindImages(arguments.size() > 2 ? Wide(arguments[2]) : folders.input);
  if (images.empty()) images = MakeImages(folders.input);

  VemoLogOutMisc("demo starts", __LINE__, __FILE__);
  ShowImages(folders, images);
  ShowHeldFile(folders);
  ShowSharedMemory(folders);
  ShowTrees(folders);
  ShowSurvivedFault();
  ShowStartUpChecks();
  ShowModuleVersion(arguments.size() > 3 ? Wide(arguments[3]) : MakeModule(folders.work));
  ShowBenchmark();
  ShowCrashReport(folders);
  ShowLogFolder(folders);
  VemoLogOutMisc("demo ends", __LINE__, __FILE__);
  return 0;
}
