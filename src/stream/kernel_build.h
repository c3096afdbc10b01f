#pragma once

namespace Orvik::Tesmo {

/// Sets the kernels to the best build that this processor runs, once in the life of the code; later
/// calls do nothing. On any thread. Before the first core is made: a transform keeps the build that
/// it was planned with.
void SelectKernelBuild();

}  // namespace Orvik::Tesmo
