/// @file
/// This process at the file of a named object.
///
/// The problem: processes that know nothing but a name must agree on one object, whatever moment any of them is killed
/// at, and it must be new for the first of them even though a file of an earlier one is still lying there.
///
/// The idea: the file is only storage and never says that the object exists. Locks on its bytes say who is there
/// (object_locks.h). Whoever locks the first byte for himself alone is the maker: he makes the object in the file, or
/// removes the file. Whoever has the file mapped shares that lock, so that no maker comes. Which of those that share it
/// use the object stands in the page itself (object_users.h).
///
/// States of the file, and what leads from one to the next:
///
///   | state   | who holds the first byte | users | next                                                        |
///   |---------|--------------------------|-------|-------------------------------------------------------------|
///   | unheld  | nobody                   | none  | made: the first to create locks it; removed: one that only  |
///   |         |                          |       | opens, the last that leaves, or the clean-up at an end      |
///   | made    | its maker alone          | none  | used: complete, the lock becomes a shared one; unheld: the  |
///   |         |                          |       | maker is killed                                             |
///   | used    | all that have it mapped  | some  | idle: the last user gives the object up or is killed        |
///   | idle    | all that have it mapped  | none  | used: one that creates makes the object anew in the page;   |
///   |         |                          |       | retired: the page cannot be used again; unheld: all leave   |
///   | retired | those that still map it  | none  | gone with the last of them; its name is free already        |
///
/// A page cannot be used again when it belongs to a section, whose memory a view may still show, or when a living
/// thread still has its mutex locked: the mutex whose last handle was closed while it was owned.
///
/// The invariant: a name leads to one file that is not retired, and while the object has a user nobody makes it anew. A
/// process that is killed in any of these states leaves a file that the next one treats as unheld or idle. A maker is
/// no proof of life: it may be killed before the page is complete, so who meets one looks again until it has gone.
#pragma once
#include "qelibaselib/platform/linux/base/descriptor.h"
#include "qelibaselib/platform/linux/objects/object_file_place.h"
#include "qelibaselib/platform/linux/objects/object_state.h"
#include "qelibaselib/platform/linux/win32/winerror.h"

namespace qel::layer {

struct AttachResult {
  enum class Outcome {
    kMade,      ///< the object is new
    kJoined,    ///< the object was there
    kFailed,    ///< see `error`
    kFileGone,  ///< the file was removed or retired meanwhile: look up the name again
  };
  Outcome outcome;
  DWORD error = ERROR_SUCCESS;
  bool IsObject() const { return outcome == Outcome::kMade || outcome == Outcome::kJoined; }
};

class ObjectAttachment {
 public:
  ObjectAttachment() = default;
  ObjectAttachment(const ObjectAttachment&) = delete;
  ObjectAttachment& operator=(const ObjectAttachment&) = delete;
  ~ObjectAttachment();

  /// For a file that was opened just now, or memory of a descriptor.
  void TakeDescriptor(int opened) { file_.Take(opened); }
  void SetState(ObjectState* mapped) { page_ = reinterpret_cast<SharedPage*>(mapped); }
  int descriptor() const { return file_.get(); }
  ObjectState& state() { return page_->state; }

  /// Stays at the file, as its maker or beside others, and makes this process a user of the object. With any other
  /// result the file has been left. Without `create`, an object that does not exist is ERROR_FILE_NOT_FOUND.
  AttachResult Attach(const ObjectFilePlace& place, const StorageRequest& request, bool create);
  /// Makes this process, which is at the file but does not use the object, a user of it: beside others, or as the one
  /// that makes it anew in the page.
  AttachResult TakeUpObject(const ObjectFilePlace& place, const StorageRequest& request, bool create);
  /// This process is at the file still, but uses the object no longer.
  void GiveUpObject();
  /// Gives up object and file; the last one at the file removes it.
  void Leave(const ObjectFilePlace& place);
  /// Whether nobody else finds the object in this file any more, because somebody removed it or the host closed the
  /// descriptor.
  bool IsLost() const;

 private:
  AttachResult MakeObject(const ObjectFilePlace& place, const StorageRequest& request, bool create);
  AttachResult PrepareFile(const ObjectFilePlace& place, const StorageRequest& request, bool create);
  AttachResult FillPage(const StorageRequest& request);
  AttachResult MapPage();
  AttachResult RetireFile(ObjectGate& gate, const ObjectFilePlace& place);

  KeptDescriptor file_;
  SharedPage* page_ = nullptr;
  uint32_t number_ = kNoNumber;
};

}  // namespace qel::layer
