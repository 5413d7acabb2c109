#pragma once
// Creates the handles behind simulated descriptors. Kept apart from the handle classes so
// that the interposer, built without the C library's large-file and 64-bit-time
// redirections, never sees a layout that depends on them.

#include <memory>
#include <string>

namespace simcam {

class CameraState;
class Handle;
class NodeState;
class Recorder;

std::shared_ptr<Handle> makeVideoHandle(int fd, std::shared_ptr<NodeState> node,
                                        bool nonBlocking, Recorder& recorder);
std::shared_ptr<Handle> makeUsbHandle(std::string path, std::shared_ptr<CameraState> camera,
                                      Recorder& recorder);

} // namespace simcam
