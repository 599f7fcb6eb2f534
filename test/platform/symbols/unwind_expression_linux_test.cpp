// The stack machine of unwind tables, operator by operator, against what DWARF says of them.
#include <gtest/gtest.h>

#include <cstring>
#include <optional>

#include "qelibaselib/platform/linux/modules/unwind_expression.h"

using namespace qel::layer;

namespace {

using Program = std::vector<uint8_t>;
using Result = std::optional<uint32_t>;  // none: the expression is refused

BOOL WINAPI ReadOwn(HANDLE, DWORD address, PVOID bytes, DWORD count, PDWORD taken) {
  if (address < 4096) return FALSE;
  std::memcpy(bytes, reinterpret_cast<const void*>(address), *taken = count);
  return TRUE;
}

Result Compute(const Program& program, const uint32_t* first = nullptr) {
  const WalkMemory memory(nullptr, &ReadOwn);
  UnwindRegisters registers;
  registers.Set(kEax, 1000);
  registers.Set(kEbp, 2000);
  const auto begin = reinterpret_cast<uintptr_t>(program.data());
  uint32_t result = 0;
  if (!ComputeExpression(memory, registers, {begin, begin + program.size()}, first, result)) return std::nullopt;
  return result;
}

struct Row {
  const char* name;
  Program program;
  Result result;
};

void ExpectResults(const std::vector<Row>& rows) {
  for (const Row& row : rows) EXPECT_EQ(Compute(row.program), row.result) << row.name;
}

TEST(UnwindExpression, Numbers) {
  ExpectResults({{"small", {0x30}, 0},
                 {"largest small", {0x4F}, 31},
                 {"address", {0x03, 1, 2, 3, 4}, 0x04030201},
                 {"byte", {0x08, 0xFE}, 0xFE},
                 {"signed byte", {0x09, 0xFE}, 0xFFFFFFFE},
                 {"half", {0x0A, 0xFE, 0xFF}, 0xFFFE},
                 {"signed half", {0x0B, 0xFE, 0xFF}, 0xFFFFFFFE},
                 {"word", {0x0C, 0xFE, 0xFF, 0xFF, 0x7F}, 0x7FFFFFFE},
                 {"signed word", {0x0D, 0xFE, 0xFF, 0xFF, 0xFF}, 0xFFFFFFFE},
                 {"unsigned number", {0x10, 0xE5, 0x8E, 0x26}, 624485},
                 {"signed number", {0x11, 0x80, 0x7F}, 0xFFFFFF80},
                 {"cut in the middle", {0x0C, 1, 2}, {}}});
}

TEST(UnwindExpression, Registers) {
  ExpectResults({{"register", {0x50}, 1000},
                 {"base register", {0x75, 0x7F}, 1999},
                 {"any base register", {0x92, 5, 4}, 2004},
                 {"not known", {0x51}, {}},
                 {"no such base", {0x92, 40, 0}, {}}});
}

TEST(UnwindExpression, OrderOnTheStack) {
  // Of 1 2 3, changed by the operation: the top three as the digits of a number, the top first.
  const auto after = [](Program operation) {
    Program program = {0x31, 0x32, 0x33};
    program.insert(program.end(), operation.begin(), operation.end());
    for (const uint8_t code : {0x08, 10, 0x1E, 0x22, 0x08, 10, 0x1E, 0x22}) program.push_back(code);
    return Compute(program);
  };
  EXPECT_EQ(after({}), 321u);
  EXPECT_EQ(after({0x12}), 332u) << "duplicate";
  EXPECT_EQ(after({0x14}), 232u) << "over";
  EXPECT_EQ(after({0x15, 2}), 132u) << "pick";
  EXPECT_EQ(after({0x16}), 231u) << "swap";
  EXPECT_EQ(after({0x17}), 213u) << "rotate";
  ExpectResults({{"drop", {0x31, 0x32, 0x13}, 1},
                 {"nothing", {0x31, 0x96}, 1},
                 {"rotate of two", {0x31, 0x32, 0x17}, {}},
                 {"pick below the bottom", {0x31, 0x15, 1}, {}}});
}

TEST(UnwindExpression, Operators) {
  constexpr uint8_t kMinusSeven = 0xF9, kMinusTwo = 0xFE;
  const auto two = [](uint8_t code, uint8_t left, uint8_t right) { return Program{0x09, left, 0x09, right, code}; };
  const auto one = [](uint8_t code, uint8_t value) { return Program{0x09, value, code}; };
  ExpectResults({{"absolute", one(0x19, kMinusSeven), 7},
                 {"absolute of a positive one", one(0x19, 7), 7},
                 {"negate", one(0x1F, 7), 0xFFFFFFF9},
                 {"not", one(0x20, 7), 0xFFFFFFF8},
                 {"add a number", {0x37, 0x23, 0x80, 0x01}, 135},
                 {"and", two(0x1A, 6, 3), 2},
                 {"or", two(0x21, 6, 3), 7},
                 {"exclusive or", two(0x27, 6, 3), 5},
                 {"add", two(0x22, 6, kMinusTwo), 4},
                 {"subtract", two(0x1C, 6, 8), 0xFFFFFFFE},
                 {"multiply", two(0x1E, 6, kMinusTwo), 0xFFFFFFF4},
                 {"divide", two(0x1B, kMinusSeven, 2), 0xFFFFFFFD},
                 {"divide by zero", two(0x1B, 7, 0), {}},
                 {"divide the smallest", {0x0C, 0, 0, 0, 0x80, 0x09, 0xFF, 0x1B}, 0x80000000},
                 {"remainder", two(0x1D, kMinusSeven, 4), 1},
                 {"remainder of zero", two(0x1D, 7, 0), {}},
                 {"shift left", two(0x24, kMinusSeven, 4), 0xFFFFFF90},
                 {"shift left by all", two(0x24, 1, 32), 0},
                 {"shift right", two(0x25, kMinusSeven, 28), 0xF},
                 {"shift right by all", two(0x25, kMinusSeven, 32), 0},
                 {"shift signed", two(0x26, kMinusSeven, 1), 0xFFFFFFFC},
                 {"shift signed by all", two(0x26, kMinusSeven, 32), 0xFFFFFFFF}});
  struct Comparison {
    uint8_t code;
    uint32_t less, equal, greater;
  };
  for (const auto& [code, less, equal, greater] : {Comparison{0x29, 0, 1, 0},
                                                   {0x2A, 0, 1, 1},
                                                   {0x2B, 0, 0, 1},
                                                   {0x2C, 1, 1, 0},
                                                   {0x2D, 1, 0, 0},
                                                   {0x2E, 1, 0, 1}}) {
    SCOPED_TRACE(testing::Message() << std::hex << int{code});
    EXPECT_EQ(Compute(two(code, kMinusTwo, 1)), less);
    EXPECT_EQ(Compute(two(code, kMinusTwo, kMinusTwo)), equal);
    EXPECT_EQ(Compute(two(code, 1, kMinusTwo)), greater);
  }
}

TEST(UnwindExpression, Memory) {
  static const uint32_t word = 0x87654321;
  const auto at = reinterpret_cast<uintptr_t>(&word);
  const auto read = [at](Program operation) {
    Program program = {0x03};
    for (int shift = 0; shift < 32; shift += 8) program.push_back(static_cast<uint8_t>(at >> shift));
    program.insert(program.end(), operation.begin(), operation.end());
    return Compute(program);
  };
  EXPECT_EQ(read({0x06}), word);
  EXPECT_EQ(read({0x94, 2}), 0x4321u);
  EXPECT_EQ(read({0x94, 4}), word);
  EXPECT_EQ(read({0x94, 0}), std::nullopt);
  EXPECT_EQ(read({0x94, 5}), std::nullopt);
  EXPECT_EQ(Compute({0x30, 0x06}), std::nullopt) << "an address that cannot be read";
}

TEST(UnwindExpression, Flow) {
  ExpectResults({{"jump", {0x31, 0x2F, 1, 0, 0x32, 0x96}, 1},
                 {"branch taken", {0x31, 0x31, 0x28, 1, 0, 0x32}, 1},
                 {"branch not taken", {0x31, 0x30, 0x28, 1, 0, 0x32}, 2},
                 {"back, until the value is 0", {0x35, 0x31, 0x1C, 0x12, 0x28, 0xFA, 0xFF, 0x37}, 7},
                 {"behind the end", {0x31, 0x2F, 9, 0}, {}},
                 {"before the beginning", {0x31, 0x2F, 0xF0, 0xFF}, {}},
                 {"without an end", {0x2F, 0xFD, 0xFF}, {}}});
}

TEST(UnwindExpression, StackIsBounded) {
  const uint32_t first = 77;
  EXPECT_EQ(Compute({}, &first), first);
  EXPECT_EQ(Compute({}), std::nullopt);
  EXPECT_EQ(Compute({0x22}, &first), std::nullopt) << "one value for an operator of two";
  EXPECT_EQ(Compute(Program(32, 0x31)), 1u);
  EXPECT_EQ(Compute(Program(33, 0x31)), std::nullopt);
  EXPECT_EQ(Compute({0x31, 0x31, 0xFF}), std::nullopt) << "no operator";
}

}  // namespace
