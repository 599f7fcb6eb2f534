// Descriptors that are kept for reports.
//
// Problem: a report opens files, and a host that faults may be one that has used up its descriptors.
//
// Idea: a few descriptors lead to an empty file in memory. A report closes them before it begins, and opens what it
// needs in their place; when the last report of the process has ended they are taken again.
//
// Invariant: a place of the list holds a descriptor of ours or none; who takes one out of the list closes it. There is
// no lock, since a report may begin anywhere.
//
// What is left: another thread that opens files at that moment may get them before the report does. A host that closes
// every descriptor, as daemons do, has them again with its next thread or after its next report.
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <span>

#include "qelibaselib/platform/linux/base/marked_descriptor.h"
#include "qelibaselib/platform/linux/base/report_depth.h"
#include "qelibaselib/platform/linux/faults/fault_internal.h"

namespace qel::layer {
namespace {

// What a first report has open at once: the folder of names, two mutexes and two figures of the memory, which then stay
// open; the report, and what its sections read one after the other. Finding the folder takes no more than four.
constexpr int kDescriptors = 7;

constinit std::atomic<MarkedDescriptor> g_kept[kDescriptors] = {};
constinit std::atomic<uint32_t> g_reports = 0;

void GiveUpAll() {
  for (auto& place : g_kept) place.exchange({}).Close();
}

// Another thread may be filling the place, too.
void Put(Descriptor& descriptor, std::atomic<MarkedDescriptor>& place) {
  MarkedDescriptor none;
  if (descriptor.get() >= 0 && place.compare_exchange_strong(none, MarkedDescriptor(descriptor.get())))
    static_cast<void>(descriptor.Detach());
}

void TakeAll() {
  Descriptor first(memfd_create("kept for reports", MFD_CLOEXEC));
  if (first.get() < 0) return;
  for (auto& place : std::span(g_kept).subspan(1)) {
    Descriptor another(fcntl(first.get(), F_DUPFD_CLOEXEC, kFirstOwnDescriptor));
    Put(another, place);
  }
  Put(first, g_kept[0]);
}

}  // namespace

void KeepReportDescriptors() {
  if (g_reports.load() != 0 || g_kept[0].load().IsOurs()) return;
  GiveUpAll();
  TakeAll();
  if (g_reports.load() != 0) GiveUpAll();  // one has begun meanwhile
}

void GiveUpReportDescriptors() {
  ++g_reports;
  GiveUpAll();
}

void TakeBackReportDescriptors() {
  if (--g_reports == 0) KeepReportDescriptors();
}

// The reports of other threads do not go on in the child.
const ForkedPart kReportDescriptorsAtFork = {[] {},
                                             [](bool inChild) {
                                               if (inChild) g_reports.store(t_reportDepth != 0);
                                             }};

}  // namespace qel::layer
