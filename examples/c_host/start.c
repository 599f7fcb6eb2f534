/* The start of a program: what MinGW's start-up files, which only its own linker understands, do for a C host. */
#include <stdlib.h>

int main(int argumentCount, char** arguments);
int __cdecl __getmainargs(int* count, char*** arguments, char*** environment, int wildcards, int* newMode);

void mainCRTStartup(void) {
  int count = 0, newMode = 0;
  char **arguments = 0, **environment = 0;
  __getmainargs(&count, &arguments, &environment, 0, &newMode);
  exit(main(count, arguments));
}
