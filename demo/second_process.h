// The demo starts itself again for what takes two processes.
#pragma once
#include <string>
#include <vector>

#include "qelibaselib/qelibaselib.h"

class SecondProcess {
 public:
  // Starts this program in a role; the log folder goes along.
  SecondProcess(const std::string& role, const std::vector<std::wstring>& arguments);
  SecondProcess(const SecondProcess&) = delete;
  SecondProcess& operator=(const SecondProcess&) = delete;
  ~SecondProcess();
  bool Started() const { return process_.hProcess != nullptr; }
  // The exit code, after its end.
  DWORD Wait();

 private:
  PROCESS_INFORMATION process_{};
};

// Plays the role that the command line names; false when it names none.
bool PlayRole(const std::vector<std::string>& arguments, int& exitCode);
