/// @file
/// Events.
#pragma once
#include "qelibaselib/platform/linux/objects/waitable.h"

namespace qel::layer {

/// The word: bit 0 is set while the event is signalled, and every change adds one, so that setting and resetting it is
/// seen by whoever is about to sleep.
class Event final : public StoredObject {
 public:
  explicit Event(StorageReference storage) : StoredObject(Kind::kEvent, std::move(storage)) {}
  Taken TryTake() override;
  bool IsReady() override { return (word().load() & 1) != 0; }
  void PutBack(Taken) override { Set(); }
  void Set();
  void Reset();

 private:
  bool Toggle(bool signalled);
};

}  // namespace qel::layer
