/// @file
/// What stands behind the handle of the version reader.
#pragma once
#include "qelibaselib/fileversion/fileversion.h"

namespace qel {

class CFileVersion {
 public:
  /// Never fails as such: what cannot be read stays null.
  explicit CFileVersion(const wchar_t* fileName);
  CFileVersion(const CFileVersion&) = delete;
  CFileVersion& operator=(const CFileVersion&) = delete;
  virtual ~CFileVersion();

  char** Strings() const { return strings_; }

 private:
  struct Translation {
    WORD language;
    WORD codePage;
  };

  bool LoadBlock(const wchar_t* fileName);
  bool FindTranslations();
  bool AllocateStrings();
  void FindStrings();

  void* versionData_ = nullptr;  // owned; everything else points into it
  DWORD translationCount_ = 0;
  Translation* translations_ = nullptr;
  char** strings_ = nullptr;  // owned: translationCount_ rows of kVersionStringCount
};

}  // namespace qel
