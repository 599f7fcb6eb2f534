/* A host in C, built by a compiler that is not the library's: it logs a line and copies a file.
       host LOG_FOLDER SOURCE TARGET */
#include <qelibaselib/qelibaselib.h>

static void Widen(const char* text, wchar_t* wide) { MultiByteToWideChar(CP_ACP, 0, text, -1, wide, MAX_PATH); }

int main(int argumentCount, char** arguments) {
  wchar_t log[MAX_PATH], source[MAX_PATH], target[MAX_PATH];
  if (argumentCount != 4) return 2;
  Widen(arguments[1], log);
  Widen(arguments[2], source);
  Widen(arguments[3], target);
  VemoSetLogPath(log);
  if (!CopyFileX(__LINE__, __FILE__, source, target, FALSE, 2000, 500)) {
    fprintf(stderr, "not copied, error %lu; the log folder tells more\n", GetLastError());
    return 1;
  }
  printf("copied\n");
  return 0;
}
