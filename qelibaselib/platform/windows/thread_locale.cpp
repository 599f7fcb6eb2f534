#include "qelibaselib/platform/thread_locale.h"

char* ThreadSetLocale(int category, const char* name) { return setlocale(category, name); }
