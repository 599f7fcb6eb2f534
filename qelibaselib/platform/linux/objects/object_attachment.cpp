#include "qelibaselib/platform/linux/objects/object_attachment.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

#include "qelibaselib/platform/linux/base/error.h"
#include "qelibaselib/platform/linux/objects/object_locks.h"
#include "qelibaselib/platform/linux/objects/robust_mutex.h"

namespace qel::layer {
namespace {

using Outcome = AttachResult::Outcome;

constexpr int64_t kMakerLimitNs = 10 * kNsPerSecond;  // a maker that was stopped must not stop everybody
constexpr useconds_t kMakerPauseUs = 20;
constexpr AttachResult kFileGone = {Outcome::kFileGone};

AttachResult FailWith(DWORD error) { return {Outcome::kFailed, error}; }

// A section's memory may still be seen by a view whose handle was closed, and a locked mutex stands in the list of its
// owner, which the kernel reads when that thread ends.
bool CanUsePageAgain(ObjectState& state, Kind wanted) {
  if (state.kind == Kind::kMapping || wanted == Kind::kMapping) return false;
  return state.kind != Kind::kMutex || !IsLockedByAnyone(state.mutex);
}

}  // namespace

ObjectAttachment::~ObjectAttachment() {
  if (page_) UnmapState(&page_->state);
}

AttachResult ObjectAttachment::Attach(const ObjectFilePlace& place, const StorageRequest& request, bool create) {
  int64_t limit = 0;
  for (;;) {
    if (TryHoldExclusive(file_.get())) return MakeObject(place, request, create);
    if (errno != EAGAIN && errno != EACCES) return FailWith(ErrorFromErrno(errno));  // no waiting helps
    if (HolderOf(file_.get()) == FileHolder::kUser && TryHoldShared(file_.get())) break;
    const int64_t now = MonotonicNs();
    if (limit == 0) limit = now + kMakerLimitNs;
    if (now > limit) return FailWith(ERROR_BUSY);
    usleep(kMakerPauseUs);
  }
  AttachResult result = MapPage();
  if (result.IsObject()) result = TakeUpObject(place, request, create);
  if (!result.IsObject()) Leave(place);
  return result;
}

// This process alone is at the file.
AttachResult ObjectAttachment::MakeObject(const ObjectFilePlace& place, const StorageRequest& request, bool create) {
  AttachResult result = PrepareFile(place, request, create);
  if (result.IsObject()) result = FillPage(request);
  if (result.IsObject())
    TryHoldShared(file_.get());  // lowers the lock in one step
  else
    DropHolds(file_.get());
  return result;
}

// Removes a file that is of no use, and brings one that is to its size and into memory.
AttachResult ObjectAttachment::PrepareFile(const ObjectFilePlace& place, const StorageRequest& request, bool create) {
  struct stat status;
  if (!file_.IsOurs(&status) || status.st_nlink == 0) return kFileGone;
  if (!create) {
    place.UnlinkFile(file_.get());
    return FailWith(ERROR_FILE_NOT_FOUND);
  }
  const bool wasSection = status.st_size > off_t{kSharedPageBytes};
  if (wasSection || (status.st_size != 0 && request.kind == Kind::kMapping)) {
    place.UnlinkFile(file_.get());
    return kFileGone;
  }
  DWORD error = ERROR_SUCCESS;
  if (status.st_size < off_t{kSharedPageBytes} + static_cast<off_t>(request.sectionSize))
    error = ReserveStateAndSection(file_.get(), request.sectionSize);
  if (error == ERROR_SUCCESS) {
    SetState(MapState(file_.get()));
    if (!page_) error = ERROR_NOT_ENOUGH_MEMORY;
  }
  if (error == ERROR_SUCCESS) return {Outcome::kMade};
  place.UnlinkFile(file_.get());
  return FailWith(error);
}

AttachResult ObjectAttachment::FillPage(const StorageRequest& request) {
  page_->state.mark.store(0, std::memory_order_relaxed);
  page_->users.Initialise();
  InitialiseState(page_->state, request);
  MarkValid(page_->state);
  ObjectGate gate(page_->users, file_, &number_);
  if (!gate.IsEntered()) return FailWith(ERROR_BUSY);
  gate.AddSelf();
  return {Outcome::kMade};
}

// The shared lock is held, beside that of somebody who is or was at the file when that was asked for.
AttachResult ObjectAttachment::MapPage() {
  struct stat status;
  if (!file_.IsOurs(&status) || status.st_nlink == 0) return kFileGone;
  if (status.st_size < off_t{kSharedPageBytes}) return FailWith(ERROR_INVALID_DATA);
  SetState(MapState(file_.get()));
  if (!page_) return FailWith(ERROR_NOT_ENOUGH_MEMORY);
  return IsValid(page_->state) ? AttachResult{Outcome::kJoined} : FailWith(ERROR_INVALID_DATA);
}

AttachResult ObjectAttachment::TakeUpObject(const ObjectFilePlace& place, const StorageRequest& request, bool create) {
  ObjectState& state = page_->state;
  ObjectGate gate(page_->users, file_, &number_);
  if (!gate.IsEntered()) return FailWith(ERROR_BUSY);
  if (gate.IsRetired()) return RetireFile(gate, place);  // again: whoever retired it may have been killed before
  if (gate.IsUsedByOthers()) {
    if (gate.HasLostFile()) return kFileGone;
    if (state.kind != request.kind) return FailWith(ERROR_INVALID_HANDLE);
    gate.AddSelf();
    return {Outcome::kJoined};
  }
  if (!create) return FailWith(ERROR_FILE_NOT_FOUND);
  if (!CanUsePageAgain(state, request.kind)) return RetireFile(gate, place);
  InitialiseState(state, request);
  gate.AddSelf();
  return {Outcome::kMade};
}

AttachResult ObjectAttachment::RetireFile(ObjectGate& gate, const ObjectFilePlace& place) {
  gate.Retire();
  place.UnlinkFile(file_.get());
  return kFileGone;
}

void ObjectAttachment::GiveUpObject() {
  if (number_ != kNoNumber) page_->users.Remove(number_);
}

// Clears the bit before the byte is unlocked: after that another process may be given the number.
void ObjectAttachment::Leave(const ObjectFilePlace& place) {
  if (!file_.IsOurs()) return;  // the host has closed the descriptor, and with it the number was lost
  GiveUpObject();
  number_ = kNoNumber;
  place.LeaveFile(file_.get());
}

bool ObjectAttachment::IsLost() const {
  struct stat status;
  return !file_.IsOurs(&status) || status.st_nlink == 0;
}

}  // namespace qel::layer
