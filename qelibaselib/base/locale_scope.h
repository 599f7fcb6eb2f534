/// @file
/// The user's locale, for a scope of one thread.
#pragma once

/// Text is handled in the user's locale while numbers keep the point as decimal separator. Other threads see nothing of
/// it. Does nothing where a thread cannot have a locale of its own.
class CSetLocale {
 public:
  CSetLocale();
  CSetLocale(const CSetLocale&) = delete;
  CSetLocale& operator=(const CSetLocale&) = delete;
  virtual ~CSetLocale();

 private:
  int previousSetting_;  // of the per-thread locale; -1: could not be changed
  char* previousName_ = nullptr;
};
