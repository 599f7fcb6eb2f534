/// @file
/// Events.
#pragma once
#include "qelibaselib/platform/linux/objects/waitable.h"

namespace qel::layer {

/// The word: bit 0 is set while the event is signalled, and every change adds one, so that whoever is about to sleep
/// sees also that it was set and reset meanwhile.
class EventObject final : public StoredObject {
 public:
  explicit EventObject(StorageReference storage) : StoredObject(Kind::kEvent, std::move(storage)) {}
  Taken TryTake() override;
  bool IsReady() override { return (word().load() & 1) != 0; }
  void PutBack(Taken) override { Set(); }
  void Set();
  void Reset();

 private:
  bool ChangeFrom(bool signalled);
};

}  // namespace qel::layer
