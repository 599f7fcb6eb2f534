#include "qelibaselib/platform/thread_locale.h"

#include <langinfo.h>

#include <new>
#include <string>
#include <utility>

#include "qelibaselib/platform/linux/threads/thread_data.h"

namespace {

struct Category {
  int number, mask;
  const char* name;
};
// The order is that in which the C library writes a mixed name, which it also takes.
constexpr Category kCategories[] = {
    {LC_CTYPE, LC_CTYPE_MASK, "LC_CTYPE"},
    {LC_NUMERIC, LC_NUMERIC_MASK, "LC_NUMERIC"},
    {LC_TIME, LC_TIME_MASK, "LC_TIME"},
    {LC_COLLATE, LC_COLLATE_MASK, "LC_COLLATE"},
    {LC_MONETARY, LC_MONETARY_MASK, "LC_MONETARY"},
    {LC_MESSAGES, LC_MESSAGES_MASK, "LC_MESSAGES"},
    {LC_PAPER, LC_PAPER_MASK, "LC_PAPER"},
    {LC_NAME, LC_NAME_MASK, "LC_NAME"},
    {LC_ADDRESS, LC_ADDRESS_MASK, "LC_ADDRESS"},
    {LC_TELEPHONE, LC_TELEPHONE_MASK, "LC_TELEPHONE"},
    {LC_MEASUREMENT, LC_MEASUREMENT_MASK, "LC_MEASUREMENT"},
    {LC_IDENTIFICATION, LC_IDENTIFICATION_MASK, "LC_IDENTIFICATION"},
};

// A thread's own locale while the setting is "enabled".
class ThreadLocale {
 public:
  ThreadLocale() = default;
  ThreadLocale(const ThreadLocale&) = delete;
  ThreadLocale& operator=(const ThreadLocale&) = delete;
  ~ThreadLocale() { Disable(); }

  bool enabled() const { return own_ != nullptr; }
  void Enable() {
    if (enabled()) return;
    own_ = duplocale(LC_GLOBAL_LOCALE);
    if (own_) uselocale(own_);
  }
  void Disable() {
    if (!enabled()) return;
    uselocale(LC_GLOBAL_LOCALE);
    freelocale(own_);
    own_ = nullptr;
  }

  char* Set(int category, const char* name) {
    if (name && !Change(category, name)) return nullptr;
    name_ = NameOf(category);
    return name_.data();
  }

 private:
  // newlocale changes its base in place, so a copy takes the change. A change of everything needs no base; the C
  // library would lose it when the new locale is "C".
  bool Change(int category, const char* name) {
    int mask = LC_ALL_MASK;
    if (category != LC_ALL) {
      mask = 0;
      for (const Category& row : kCategories)
        if (row.number == category) mask = row.mask;
      if (mask == 0) return false;
    }
    locale_t copy = nullptr;
    if (mask != LC_ALL_MASK && (copy = duplocale(own_)) == nullptr) return false;
    locale_t changed = newlocale(mask, name, copy);
    if (!changed) {
      if (copy) freelocale(copy);
      return false;
    }
    uselocale(changed);
    freelocale(own_);
    own_ = changed;
    return true;
  }

  std::string NameOf(int category) const {
    if (category != LC_ALL) return nl_langinfo_l(NL_LOCALE_NAME(category), own_);
    const std::string first = NameOf(kCategories[0].number);
    std::string mixed;
    bool allTheSame = true;
    for (const Category& row : kCategories) {
      const std::string name = NameOf(row.number);
      allTheSame = allTheSame && name == first;
      mixed += (mixed.empty() ? "" : ";") + std::string(row.name) + "=" + name;
    }
    return allTheSame ? first : mixed;
  }

  locale_t own_ = nullptr;
  std::string name_;
};

thread_local constinit ThreadLocale* t_locale = nullptr;

// Makes it at the first use; null without memory.
ThreadLocale* OfThisThread() {
  if (!t_locale && (t_locale = new (std::nothrow) ThreadLocale)) qel::layer::ArmThreadEnd();
  return t_locale;
}

}  // namespace

void qel::layer::FreeThreadLocale() { delete std::exchange(t_locale, nullptr); }

extern "C" int _configthreadlocale(int setting) {
  ThreadLocale* const own = OfThisThread();
  if (!own) return -1;
  ThreadLocale& locale = *own;
  const int previous = locale.enabled() ? _ENABLE_PER_THREAD_LOCALE : _DISABLE_PER_THREAD_LOCALE;
  switch (setting) {
    case 0:
      return previous;
    case _ENABLE_PER_THREAD_LOCALE:
      locale.Enable();
      return locale.enabled() ? previous : -1;
    case _DISABLE_PER_THREAD_LOCALE:
      locale.Disable();
      return previous;
    default:
      return -1;
  }
}

char* ThreadSetLocale(int category, const char* name) {
  return t_locale && t_locale->enabled() ? t_locale->Set(category, name) : setlocale(category, name);
}
