#pragma once
// A private directory standing in for the parts of /dev and /sys a model shows:
//
//   ROOT/dev/<node names, other names>      listed by opendir("/dev")
//   ROOT/dev/bus/usb/BBB/DDD                 placeholders for stat()
//   ROOT/sys/class/video4linux/<node>        absolute symlinks into ROOT/sys/devices/...
//   ROOT/sys/dev/char/81:N                   the same node directories, by device number
//   ROOT/sys/devices/.../busnum, devnum      where the camera's attachment puts them
//
// Only the entry points (opendir of /dev, paths under /sys/class/video4linux, stat of the
// model's nodes) are redirected here; because the class links are absolute, whatever a
// caller does with a link target (cdUp, exists, read) touches real files in this tree.

#include "simcam/Model.h"

#include <string>
#include <sys/types.h>

namespace simcam {

class ShadowTree {
public:
    explicit ShadowTree(const Model& model); // throws std::runtime_error
    ~ShadowTree();                          // removes the tree (in the creating process)
    ShadowTree(const ShadowTree&) = delete;
    ShadowTree& operator=(const ShadowTree&) = delete;

    const std::string& root() const { return root_; }
    std::string devDir() const { return root_ + "/dev"; }
    std::string classDir() const { return root_ + "/sys/class/video4linux"; }

    // Device directory of camera `index` (for tests and documentation).
    static std::string deviceDirFor(const Camera& camera, int index);

private:
    void build(const Model& model);

    std::string root_;
    pid_t owner_;
};

} // namespace simcam
