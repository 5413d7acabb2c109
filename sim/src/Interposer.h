#pragma once
// Lets the control API check that the process's libc calls reach the interposer.

namespace simcam {

// open() of this path is answered by the interposer itself (ENOENT) and noted.
constexpr const char* kInterposerProbePath = "/dev/.simcam-interposer-probe";

// Set by the interposer when it saw the probe path on this thread.
bool& interposerProbeSeen();

} // namespace simcam
