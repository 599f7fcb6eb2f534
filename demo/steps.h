// What the demo shows, one step a function; each says on the terminal what it does and what came of it.
#pragma once
#include <string>
#include <vector>

struct Folders {
  std::wstring work, log, input, output;
};

// The heading of a step.
void Title(const char* text);
void ShowImages(const Folders& folders, const std::vector<std::wstring>& images);
void ShowHeldFile(const Folders& folders);
void ShowSharedMemory(const Folders& folders);
void ShowTrees(const Folders& folders);
void ShowSurvivedFault();
void ShowStartUpChecks();
// A smallest module with a version resource; its path.
std::wstring MakeModule(const std::wstring& folder);
void ShowModuleVersion(const std::wstring& module);
void ShowBenchmark();
void ShowCrashReport(const Folders& folders);
void ShowLogFolder(const Folders& folders);
