/// @file
/// What a room of the layer does when the process forks.
#pragma once

namespace qel::layer {

/// A part of the layer that has a lock, or something that is not the child's. modules/fork.cpp has the list of all.
struct ForkedPart {
  /// Takes the lock in the forking thread, so that no other thread is inside when the child's memory is copied.
  void (*lock)();
  /// Gives the lock back, in the parent and in the child. The child also forgets what is its parent's alone.
  void (*unlock)(bool inChild);
};

}  // namespace qel::layer
