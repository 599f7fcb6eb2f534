#include <fcntl.h>
#include <io.h>

#include "qellog/system/terminal.h"
// clang-format off
#include <windows.h>
#include <shellapi.h>
// clang-format on

#include <atomic>
#include <csignal>

namespace qellog {
namespace {

std::atomic<bool> g_interrupted = false;

BOOL WINAPI NoteInterrupt(DWORD) {
  g_interrupted = true;
  return TRUE;
}

std::string Utf8Of(const wchar_t* text) {
  const int length = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
  std::string utf8(static_cast<std::size_t>(length > 0 ? length - 1 : 0), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text, -1, utf8.data(), length, nullptr, nullptr);
  return utf8;
}

std::wstring WideOf(const std::string& text) {
  const int length = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(length), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(), length);
  return wide;
}

/// Quoted so that the started program sees the argument as it is. Names with quotes are refused by the file system.
std::wstring QuotedCommandLine(const std::vector<std::string>& commandLine) {
  std::wstring line;
  for (const std::string& argument : commandLine) {
    std::wstring wide = WideOf(argument);
    std::erase(wide, L'"');
    if (wide.ends_with(L'\\')) wide += L'\\';
    line += L"\"" + wide + L"\" ";
  }
  return line;
}

std::string ReadAll(HANDLE file) {
  std::string text;
  char block[4096];
  DWORD count = 0;
  while (ReadFile(file, block, sizeof block, &count, nullptr) && count > 0) text.append(block, count);
  return text;
}

}  // namespace

std::FILE* OpenForWriting(const std::string& path) { return _wfopen(WideOf(path).c_str(), L"wb"); }

bool IsTerminal(std::FILE* stream) { return _isatty(_fileno(stream)) != 0; }

std::size_t TerminalWidth() {
  CONSOLE_SCREEN_BUFFER_INFO information{};
  const bool known = GetConsoleScreenBufferInfo(GetStdHandle(STD_OUTPUT_HANDLE), &information) != FALSE;
  return known ? static_cast<std::size_t>(information.srWindow.Right - information.srWindow.Left + 1) : 100;
}

void PrepareConsole() {
  constexpr DWORD kEscapeSequences = 4;  // ENABLE_VIRTUAL_TERMINAL_PROCESSING
  const HANDLE console = GetStdHandle(STD_OUTPUT_HANDLE);
  DWORD mode = 0;
  if (GetConsoleMode(console, &mode)) SetConsoleMode(console, mode | kEscapeSequences);
  SetConsoleOutputCP(CP_UTF8);
  _setmode(_fileno(stdout), _O_BINARY);
}

std::vector<std::string> CommandLine(int, char**) {
  int count = 0;
  wchar_t** const values = CommandLineToArgvW(GetCommandLineW(), &count);
  std::vector<std::string> arguments;
  for (int i = 1; i < count; ++i) arguments.push_back(Utf8Of(values[i]));
  LocalFree(values);
  return arguments;
}

void CatchInterrupts() { SetConsoleCtrlHandler(&NoteInterrupt, TRUE); }

bool Interrupted() { return g_interrupted; }

Timestamp LocalNow() {
  SYSTEMTIME now;
  GetLocalTime(&now);
  const auto day = MakeDay(now.wYear, now.wMonth, now.wDay);
  const std::int64_t seconds = (now.wHour * 60 + now.wMinute) * 60 + now.wSecond;
  return {day.value_or(Timestamp{}).milliseconds + seconds * 1000 + now.wMilliseconds};
}

std::string OutputOf(const std::vector<std::string>& commandLine) {
  SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
  HANDLE readEnd = nullptr;
  HANDLE writeEnd = nullptr;
  if (!CreatePipe(&readEnd, &writeEnd, &inheritable, 0)) return {};
  SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = writeEnd;
  PROCESS_INFORMATION process{};
  std::wstring line = QuotedCommandLine(commandLine);
  const BOOL started = CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr, nullptr,
                                      &startup, &process);
  CloseHandle(writeEnd);
  std::string text;
  if (started) {
    text = ReadAll(readEnd);
    WaitForSingleObject(process.hProcess, INFINITE);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
  }
  CloseHandle(readEnd);
  return text;
}

std::FILE* OpenPager(const std::string& command) { return _popen(command.c_str(), "wb"); }

void ClosePager(std::FILE* pager) { _pclose(pager); }

}  // namespace qellog
