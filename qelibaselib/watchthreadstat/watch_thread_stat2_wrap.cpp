#include "qelibaselib/guard/exception_guard.h"
#include "qelibaselib/watchthreadstat/watchthreadstat.h"

CWatchThreadStat2Wrap::CWatchThreadStat2Wrap(CWatchThreadStat2* watcher, long firstDelayMs, long intervalMs,
                                             CWatchThreadStat2::Callback callback, void* arg)
    : m_pWatcher(watcher), m_hWatch(nullptr) {
  if (!watcher) return;
  qel::Swallowed([&] { m_hWatch = watcher->Start(firstDelayMs, intervalMs, callback, arg); });
}

CWatchThreadStat2Wrap::~CWatchThreadStat2Wrap() {
  if (m_pWatcher && m_hWatch) m_pWatcher->End(m_hWatch);
}
