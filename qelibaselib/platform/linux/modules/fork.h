/// @file
/// Forks of a process that uses the layer.
#pragma once

namespace qel::layer {

/// Called once, when the layer is loaded.
void InstallForkHandlers();

}  // namespace qel::layer
