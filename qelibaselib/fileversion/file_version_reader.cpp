#include "qelibaselib/fileversion/file_version_reader.h"

#include <iterator>

#include "qelibaselib/base/format.h"
#include "qelibaselib/memory/memory.h"

namespace qel {
namespace {

constexpr DWORD kAllocationTimeoutMs = 10000;
constexpr char kTranslationQuery[] = "\\VarFileInfo\\Translation";
constexpr const char* kStringNames[] = {"Comments",     "CompanyName",    "FileDescription", "FileVersion",
                                        "InternalName", "LegalCopyright", "LegalTrademarks", "OriginalFilename",
                                        "ProductName",  "ProductVersion", "PrivateBuild",    "SpecialBuild"};
static_assert(std::size(kStringNames) == kVersionStringCount);

void* AllocateZeroed(DWORD size) {
  void* block = _MemAlloc(__FILE__, __LINE__, size, kAllocationTimeoutMs);
  return block ? _MemSet(block, 0, size, __LINE__, __FILE__) : nullptr;
}

}  // namespace

CFileVersion::CFileVersion(const wchar_t* fileName) {
  if (LoadBlock(fileName) && FindTranslations() && AllocateStrings()) FindStrings();
}

CFileVersion::~CFileVersion() {
  if (strings_) _MemFree(__FILE__, __LINE__, strings_);
  if (versionData_) _MemFree(__FILE__, __LINE__, versionData_);
}

bool CFileVersion::LoadBlock(const wchar_t* fileName) {
  const DWORD size = GetFileVersionInfoSizeW(fileName, nullptr);
  if (size == 0) return false;
  versionData_ = AllocateZeroed(size);
  return versionData_ && GetFileVersionInfoW(fileName, 0, size, versionData_);
}

bool CFileVersion::FindTranslations() {
  void* value = nullptr;
  UINT length = 0;
  if (!VerQueryValueA(versionData_, kTranslationQuery, &value, &length)) return false;
  translations_ = static_cast<Translation*>(value);
  translationCount_ = length / sizeof(Translation);
  return translationCount_ != 0;
}

bool CFileVersion::AllocateStrings() {
  strings_ = static_cast<char**>(AllocateZeroed(translationCount_ * kVersionStringCount * sizeof(char*)));
  return strings_ != nullptr;
}

void CFileVersion::FindStrings() {
  for (DWORD row = 0; row < translationCount_; ++row) {
    for (DWORD column = 0; column < kVersionStringCount; ++column) {
      char query[64];
      FormatText(query, sizeof query, "\\StringFileInfo\\%04x%04x\\%s", translations_[row].language,
                 translations_[row].codePage, kStringNames[column]);
      void* value = nullptr;
      UINT length = 0;
      if (VerQueryValueA(versionData_, query, &value, &length) && length != 0)
        strings_[row * kVersionStringCount + column] = static_cast<char*>(value);
    }
  }
}

}  // namespace qel
