#include "qelibaselib/qelsystembenchmark/pixel_loop.h"

#include <omp.h>

#include <atomic>

#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/guard/omp_exception.h"
#include "qelibaselib/guard/structured_exception_translator.h"
#include "qelibaselib/log/log_channel.h"

namespace qel {
namespace {

/// What the first thread that fails leaves for the code after the region: exceptions may not cross its end.
class RegionFailure {
 public:
  bool Happened() const { return text_.load(std::memory_order_relaxed) != nullptr; }
  void Set(const char* text, int line) {
    const char* none = nullptr;
    if (text_.compare_exchange_strong(none, text)) line_ = line;
  }
  void ThrowIfHappened() const {
    if (!Happened()) return;
    const SourcePosition position{line_, __FILE__};
    WriteAssertion(position, text_.load());
    throw COmpException(1, position.line, position.sourceFile);
  }

 private:
  std::atomic<const char*> text_{nullptr};
  int line_ = 0;
};

struct CatchTexts {
  const char* structured;
  const char* framework;
  const char* other;
};
constexpr CatchTexts kEndOfFor{"OMP_END_FOR CATCH_SE", "OMP_END_FOR CATCH_CE", "OMP_END_FOR CATCH_AE"};
constexpr CatchTexts kEndOfParallel{"OMP_END_PARALLEL CATCH_SE", "OMP_END_PARALLEL CATCH_CE",
                                    "OMP_END_PARALLEL CATCH_AE"};

template <class Body>
void CatchInside(RegionFailure& failure, const CatchTexts& texts, int line, Body&& body) {
  try {
    fault::Run(body);
  } catch (const CSE&) {
    failure.Set(texts.structured, line);
  } catch (CException* exception) {
    exception->Delete();
    failure.Set(texts.framework, line);
  } catch (...) {
    failure.Set(texts.other, line);
  }
}

/// The step of one byte, not three, is what has always been measured: figures stay comparable with older ones.
void CopyRow(const unsigned char* source, unsigned char* destination, int row) {
  const int base = row * kImageColumns * kBytesOfPixel;
  for (int j = 0; j < kImageColumns; ++j) {
    destination[base + j] = source[base + j + 2];
    destination[base + j + 1] = source[base + j + 1];
    destination[base + j + 2] = source[base + j];
  }
}

/// The thread count of later parallel regions of this thread, put back at the end of the scope.
class OmpThreadCountScope {
 public:
  explicit OmpThreadCountScope(int threads) : previous_(omp_get_max_threads()) { omp_set_num_threads(threads); }
  OmpThreadCountScope(const OmpThreadCountScope&) = delete;
  OmpThreadCountScope& operator=(const OmpThreadCountScope&) = delete;
  ~OmpThreadCountScope() { omp_set_num_threads(previous_); }

 private:
  const int previous_;
};

}  // namespace

void RunPixelLoop(const unsigned char* source, unsigned char* destination, int threads) {
  RegionFailure failure;
  const int priority = GetThreadPriority(GetCurrentThread());
  {
    const OmpThreadCountScope threadCount(threads);
#pragma omp parallel
    {
      const CSEREG translator;
      CatchInside(failure, kEndOfParallel, __LINE__, [&] {
        if (omp_get_thread_num() != 0) SetThreadPriority(GetCurrentThread(), priority);
      });
#pragma omp for schedule(static)
      for (int row = 0; row < kImageRows; ++row) {
        if (!failure.Happened()) CatchInside(failure, kEndOfFor, __LINE__, [&] { CopyRow(source, destination, row); });
      }
    }
  }
  failure.ThrowIfHappened();
}

}  // namespace qel
