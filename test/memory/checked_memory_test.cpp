#include "qelibaselib/memory/checked_memory.h"

#include "test/support/library.h"
#include "test/support/worker.h"

namespace qel::test {
namespace {

constexpr int kLine = 4711;
constexpr char kSource[] = "host.cpp";

void* Copy(void* destination, const void* source, DWORD size) {
  return _MemCpy(destination, source, size, kLine, kSource);
}
int Compare(const void* first, const void* second, DWORD size) { return _MemCmp(first, second, size, kLine, kSource); }
void* Fill(void* destination, int value, DWORD size) { return _MemSet(destination, value, size, kLine, kSource); }

// Sizes round the steps of a vectorised loop and of a page.
const DWORD kSizes[] = {1, 2, 3, 4, 5, 15, 16, 17, 31, 63, 64, 65, 127, 128, 200, 4095, 4096, 4097, 8192};

TEST(CheckedMemory, CopiesAndFillsExactlyTheBuffer) {
  PageBuffer source(2), destination(2);
  for (DWORD i = 0; i < source.Size(); ++i) source.Begin()[i] = static_cast<BYTE>(i * 7 + i / 256);
  for (const DWORD size : kSizes) {
    std::memset(destination.Begin(), 0xEE, destination.Size());
    BYTE* target = destination.End() - size;
    EXPECT_EQ(Copy(target, source.Begin(), size), target);
    EXPECT_EQ(std::memcmp(target, source.Begin(), size), 0) << size;
    EXPECT_EQ(std::count(destination.Begin(), target, 0xEE), target - destination.Begin()) << size;

    EXPECT_EQ(Fill(destination.Begin(), 0x1AB, size), destination.Begin());
    EXPECT_EQ(std::count(destination.Begin(), destination.Begin() + size, 0xAB), static_cast<int>(size)) << size;
  }
}

TEST(CheckedMemory, ComparesBytesAsUnsignedWhereverTheyStand) {
  PageBuffer first(2), second(2);
  for (const DWORD size : kSizes) {
    BYTE* atEnd = first.End() - size;  // the two are aligned differently
    BYTE* atBegin = second.Begin();
    std::memset(atEnd, 0x7F, size);
    std::memset(atBegin, 0x7F, size);
    EXPECT_EQ(Compare(atEnd, atBegin, size), 0) << size;
    for (const DWORD place : {0ul, size / 2, size - 1}) {
      atEnd[place] = 0x80;
      if (place + 1 < size) atBegin[size - 1] = 0xFF;  // only the first difference counts
      EXPECT_EQ(Compare(atEnd, atBegin, size), 1) << size << " at " << place;
      EXPECT_EQ(Compare(atBegin, atEnd, size), -1) << size << " at " << place;
      atEnd[place] = atBegin[size - 1] = 0x7F;
    }
  }
}

TEST(CheckedMemory, ComparisonEndsAtTheDifference) {
  PageBuffer first(3), second(3);
  first.Protect(1, PAGE_NOACCESS);
  BYTE* begin = first.Begin() + PageBuffer::kPage - 21;
  begin[20] = 1;
  EXPECT_EQ(Compare(begin, second.Begin(), first.End() - begin), 1);
}

TEST(CheckedMemory, NothingAtAllIsAlwaysAllowed) {
  EXPECT_TRUE(ChkMemAccess(nullptr, 0, kMemoryDestination));
  EXPECT_EQ(Copy(nullptr, nullptr, 0), nullptr);
  EXPECT_EQ(Compare(nullptr, nullptr, 0), 0);
  EXPECT_EQ(Fill(nullptr, 1, 0), nullptr);
}

TEST(CheckedMemory, ProbesFirstAndLastByteForReadingAndNothingElse) {
  PageBuffer buffer(3);
  std::vector<std::pair<const void*, ULONG_PTR>> probes;
  {
    auto probe = STAND_IN(IsBadReadPtr, [&](int, LPCVOID address, ULONG_PTR size) {
      probes.emplace_back(address, size);
      return FALSE;
    });
    EXPECT_TRUE(ChkMemAccess(buffer.Begin() + 5, 100, kMemoryDestination));
  }
  EXPECT_EQ(probes, (decltype(probes){{buffer.Begin() + 5, 1}, {buffer.Begin() + 104, 1}}));

  buffer.Protect(1, PAGE_NOACCESS);
  EXPECT_TRUE(ChkMemAccess(buffer.Begin(), buffer.Size(), kMemorySource)) << "the middle is not looked at";
  buffer.Protect(0, PAGE_READONLY);
  for (const int direction : {kMemoryDestination, kMemorySource, 7}) {
    EXPECT_TRUE(ChkMemAccess(buffer.Begin(), 1, direction)) << direction;
    EXPECT_FALSE(ChkMemAccess(buffer.Begin() - 1, 2, direction)) << direction;
    EXPECT_FALSE(ChkMemAccess(buffer.End() - 1, 2, direction)) << direction;
    EXPECT_FALSE(ChkMemAccess(nullptr, 1, direction)) << direction;
    EXPECT_FALSE(ChkMemAccess(buffer.Begin(), 0u - reinterpret_cast<ULONG_PTR>(buffer.Begin()) + 1, direction))
        << "ends at address 0";
  }
}

// A thread on which nothing catches, neither the test framework's clauses nor a guard, so that faults and raised
// exceptions reach the filter of the process.
void OnBareThread(const std::function<void()>& body) {
  const Worker thread([&] { return body(), 0; });
}

// Records what nobody catches and lets the thread go on, after `mend` when there is one.
class ContinuingFilter {
 public:
  explicit ContinuingFilter(std::function<void()> mend = {}) : mend_(std::move(mend)) {
    active_ = this;
    before_ = SetUnhandledExceptionFilter(&Enter);
  }
  ContinuingFilter(const ContinuingFilter&) = delete;
  ContinuingFilter& operator=(const ContinuingFilter&) = delete;
  ~ContinuingFilter() { SetUnhandledExceptionFilter(before_); }

  std::vector<EXCEPTION_RECORD> records;

 private:
  static LONG WINAPI Enter(EXCEPTION_POINTERS* pointers) {
    active_->records.push_back(*pointers->ExceptionRecord);
    if (active_->mend_) active_->mend_();
    return EXCEPTION_CONTINUE_EXECUTION;
  }
  static inline ContinuingFilter* active_ = nullptr;
  std::function<void()> mend_;
  LPTOP_LEVEL_EXCEPTION_FILTER before_ = nullptr;
};

class BadBuffer : public testing::Test {
 protected:
  // Runs the operation where nobody catches and lets it go on.
  void Expect(std::function<void()> operation, const std::string& message, std::vector<ULONG_PTR> parameters) {
    TakeLines(channel::kMemoryOperation);
    ContinuingFilter filter;
    OnBareThread(operation);
    ASSERT_EQ(filter.records.size(), 1u) << message;
    const EXCEPTION_RECORD& record = filter.records[0];
    EXPECT_EQ(record.ExceptionCode, EXCEPTION_ACCESS_VIOLATION);
    EXPECT_EQ(record.ExceptionFlags, 0u);
    EXPECT_EQ(
        std::vector<ULONG_PTR>(record.ExceptionInformation, record.ExceptionInformation + record.NumberParameters),
        parameters);
    EXPECT_EQ(TakePlacedMessages(channel::kMemoryOperation), Messages{"host.cpp(4711): " + message});
  }

  PageBuffer good_, other_;
};

TEST_F(BadBuffer, OfACopyIsNamedAndNothingIsCopied) {
  BYTE* behind = good_.End() - 3;
  std::memset(good_.Begin(), 1, good_.Size());
  std::memset(other_.Begin(), 2, other_.Size());
  Expect([&] { EXPECT_EQ(Copy(nullptr, other_.Begin(), 8), nullptr); },
         "_MemCpy(0x00000000, " + Address(other_.Begin()) + ", 8), Error(pDst)", {0, Number(other_.Begin()), 8});
  Expect([&] { EXPECT_EQ(Copy(behind, other_.Begin(), 4), behind); },
         "_MemCpy(" + Address(behind) + ", " + Address(other_.Begin()) + ", 4), Error(pDst)",
         {Number(behind), Number(other_.Begin()), 4});
  Expect([&] { EXPECT_EQ(Copy(good_.Begin(), other_.Begin() - 1, 2), good_.Begin()); },
         "_MemCpy(" + Address(good_.Begin()) + ", " + Address(other_.Begin() - 1) + ", 2), Error(pSrc)",
         {Number(good_.Begin()), Number(other_.Begin() - 1), 2});
  Expect([&] { EXPECT_EQ(Copy(nullptr, nullptr, 0xFFFFFFFF), nullptr); },
         "_MemCpy(0x00000000, 0x00000000, 4294967295), Error(pDst)", {0, 0, 0xFFFFFFFF});
  EXPECT_EQ(std::count(good_.Begin(), good_.End(), 1), static_cast<int>(good_.Size()));
}

TEST_F(BadBuffer, OfAComparisonIsNamedAndComparesSmaller) {
  Expect([&] { EXPECT_EQ(Compare(nullptr, good_.Begin(), 1), -1); },
         "_MemCmp(0x00000000, " + Address(good_.Begin()) + ", 1), Error(pDst)", {0, Number(good_.Begin()), 1});
  Expect([&] { EXPECT_EQ(Compare(good_.Begin(), good_.End(), 1), -1); },
         "_MemCmp(" + Address(good_.Begin()) + ", " + Address(good_.End()) + ", 1), Error(pSrc)",
         {Number(good_.Begin()), Number(good_.End()), 1});
}

TEST_F(BadBuffer, OfAFillIsNamedWithTheWholeValue) {
  Expect([&] { EXPECT_EQ(Fill(good_.End(), -2, 16), good_.End()); }, "_MemSet(" + Address(good_.End()) + ", -2, 16)",
         {Number(good_.End()), static_cast<ULONG_PTR>(-2), 16});
}

// Only reading is probed, so the operation itself faults, at the address that cannot be written; mended, it completes.
TEST(CheckedMemory, ReadOnlyDestinationFaultsInsideTheOperation) {
  PageBuffer destination;
  const std::vector<BYTE> source(100, 0x5A);
  for (const auto& operation : std::vector<std::function<void()>>{
           [&] { Copy(destination.Begin(), source.data(), 100); }, [&] { Fill(destination.Begin(), 0x5A, 100); }}) {
    std::memset(destination.Begin(), 0, 100);
    destination.Protect(0, PAGE_READONLY);
    ContinuingFilter filter([&] { destination.Protect(0, PAGE_READWRITE); });
    OnBareThread(operation);
    ASSERT_EQ(filter.records.size(), 1u);
    EXPECT_EQ(filter.records[0].ExceptionCode, EXCEPTION_ACCESS_VIOLATION);
    ASSERT_EQ(filter.records[0].NumberParameters, 2u);
    EXPECT_EQ(filter.records[0].ExceptionInformation[0], 1u) << "a write";
    EXPECT_EQ(filter.records[0].ExceptionInformation[1] & ~(PageBuffer::kPage - 1),
              reinterpret_cast<ULONG_PTR>(destination.Begin()));
    EXPECT_EQ(std::count(destination.Begin(), destination.Begin() + 100, 0x5A), 100);
  }
}

}  // namespace
}  // namespace qel::test
