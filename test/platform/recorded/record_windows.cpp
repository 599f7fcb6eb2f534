// The program that records on Windows: reads a record and prints it with the answers that the calls give.
#include <cstdio>
#include <iostream>
#include <iterator>

#include "test/platform/recorded/script.h"

int main() {
  const std::string text{std::istreambuf_iterator<char>(std::cin), {}};
  for (const qel::test::Section& section : qel::test::ReadSections(text)) {
    std::printf("== %s\n", section.name.c_str());
    std::fflush(stdout);
    for (const std::string& line : qel::test::AskAll(section)) std::printf("%s\n", line.c_str());
  }
}
