// The files that one worker alone changes, with what each of them must hold.
#pragma once
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace qel::soak {

using Random = std::mt19937;

class OwnFiles {
 public:
  // Clears what an earlier process of this number has left.
  OwnFiles(std::wstring folder, Random& random);

  // Each does one operation and returns what is wrong with its outcome; empty when nothing is.
  std::string Write();
  std::string WriteThroughMapping();
  std::string Copy();
  std::string Move();
  std::string Delete();
  std::string Verify();
  std::string CopyTree(const std::wstring& target);

 private:
  std::wstring PathOf(const std::wstring& name) const;
  std::wstring AnyName();
  const std::pair<const std::wstring, uint32_t>* AnyFile();
  std::string VerifyFile(const std::wstring& path, uint32_t content) const;

  std::wstring folder_;
  Random& random_;
  std::map<std::wstring, uint32_t> files_;  // name -> what its contents are made from
};

/// The bytes of a file, made from one number.
std::vector<unsigned char> ContentOf(uint32_t number);

}  // namespace qel::soak
