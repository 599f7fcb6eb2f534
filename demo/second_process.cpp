#include "demo/second_process.h"

#include <cstdio>

#include "demo/crash.h"
#include "demo/image_folder.h"

namespace {

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

// Holds a file without sharing for a while, and says when it does.
int HoldFile(const std::wstring& path, const std::wstring& readyName, DWORD holdMs) {
  HANDLE file = CreateFileX(__LINE__, __FILE__, path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING,
                            FILE_ATTRIBUTE_NORMAL, nullptr, 0, 0);
  HANDLE ready = CreateEventX(__LINE__, __FILE__, nullptr, TRUE, FALSE, readyName.c_str());
  SetEvent(ready);
  Sleep(holdMs);
  CloseHandle(ready);
  return file != INVALID_HANDLE_VALUE && CloseHandle(file) ? 0 : 1;
}

// Loads a file into an object that the first process has made.
int LoadObject(const std::wstring& path, const std::wstring& object, DWORD size) {
  return FileToObject(__LINE__, __FILE__, path.c_str(), size, 0, object.c_str(), -1, TRUE) ? 0 : 1;
}

// A second instance of the product, which refuses to start while the first runs.
int SecondStart(const std::wstring& stem) { return VemoChkMultiStartUp(__LINE__, __FILE__, stem.c_str(), FALSE, 0); }

}  // namespace

SecondProcess::SecondProcess(const std::string& role, const std::vector<std::wstring>& arguments) {
  char program[MAX_PATH];
  GetModuleFileNameA(nullptr, program, sizeof program);
  std::string commandLine = Quoted(program) + " --role " + role + " " + Quoted(Narrow(VemoGetLogPath()));
  for (const auto& argument : arguments) commandLine += " " + Quoted(Narrow(argument));
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  if (!CreateProcessA(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process_))
    std::printf("  (no second process: error %lu)\n", GetLastError());
}

SecondProcess::~SecondProcess() {
  if (!Started()) return;
  CloseHandle(process_.hThread);
  CloseHandle(process_.hProcess);
}

DWORD SecondProcess::Wait() {
  DWORD exitCode = 1;
  if (!Started()) return exitCode;
  WaitForSingleObject(process_.hProcess, INFINITE);
  GetExitCodeProcess(process_.hProcess, &exitCode);
  return exitCode;
}

bool PlayRole(const std::vector<std::string>& arguments, int& exitCode) {
  if (arguments.size() < 3 || arguments[0] != "--role") return false;
  const std::string& role = arguments[1];
  VemoSetLogPath(Wide(arguments[2]).c_str());
  std::vector<std::wstring> rest;
  for (size_t i = 3; i < arguments.size(); ++i) rest.push_back(Wide(arguments[i]));
  if (role == "hold" && rest.size() == 3)
    exitCode = HoldFile(rest[0], rest[1], std::stoul(rest[2]));
  else if (role == "load" && rest.size() == 3)
    exitCode = LoadObject(rest[0], rest[1], std::stoul(rest[2]));
  else if (role == "start" && rest.size() == 1)
    exitCode = SecondStart(rest[0]);
  else if (role == "crash")
    exitCode = CrashWithReport();
  else
    exitCode = 2;
  return true;
}
