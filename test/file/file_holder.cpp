#include "test/file/file_test.h"

CHILD_ROLE(HoldFile) {
  const HANDLE file =
      qel::test::OpenPlain(std::filesystem::path(arguments.at(0)).wstring(), GENERIC_READ | GENERIC_WRITE, 0);
  if (file == INVALID_HANDLE_VALUE) return 1;
  qel::test::Say("held");
  qel::test::Hear();
  CloseHandle(file);
  qel::test::Say("free");
  return 0;
}
