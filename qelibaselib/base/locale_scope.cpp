#include "qelibaselib/base/locale_scope.h"

#include <cstring>

#include "qelibaselib/platform/thread_locale.h"

CSetLocale::CSetLocale() : previousSetting_(_configthreadlocale(_ENABLE_PER_THREAD_LOCALE)) {
  if (previousSetting_ == -1) return;
  if (const char* name = ThreadSetLocale(LC_ALL, nullptr)) {
    const size_t size = std::strlen(name) + 1;
    previousName_ = new char[size];
    std::memcpy(previousName_, name, size);
  }
  ThreadSetLocale(LC_ALL, "");
  ThreadSetLocale(LC_NUMERIC, "C");
}

CSetLocale::~CSetLocale() {
  if (previousSetting_ == -1) return;
  if (previousName_) {
    ThreadSetLocale(LC_ALL, previousName_);
    delete[] previousName_;
  }
  _configthreadlocale(previousSetting_);
}
