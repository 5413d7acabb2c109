#pragma once
// One configured model: its live cameras and nodes, its shadow tree, and the decision which
// paths it simulates.

#include "DeviceState.h"
#include "ShadowTree.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace simcam {

// How a path is used, which decides whether it is redirected into the shadow tree.
enum class PathUse {
    Open,    // open/fopen: the sysfs class directory
    List,    // opendir: additionally /dev itself and /dev/bus/usb
    Inspect, // stat/access/readlink/realpath: additionally every video and usbfs node name
};

// Whether a path can concern the simulator at all; checked before anything is locked.
bool maySimulate(const char* path);

// /dev/video*, /dev/Video*, ... and /dev/bus/usb/...: the host's own cameras, hidden while
// a model is active.
bool isCameraDevicePath(std::string_view path);

class ActiveModel {
public:
    // Validates and normalises the model and builds its shadow tree. Throws
    // std::invalid_argument (bad model) or std::runtime_error (file system).
    explicit ActiveModel(Model model);
    ~ActiveModel(); // joins the cameras' replug timers, as retire() does
    ActiveModel(const ActiveModel&) = delete;
    ActiveModel& operator=(const ActiveModel&) = delete;

    const Model& model() const { return model_; }
    const std::string& root() const { return shadow_.root(); }

    std::shared_ptr<NodeState> nodeByPath(std::string_view path) const;
    std::shared_ptr<NodeState> nodeByName(std::string_view name) const;
    std::shared_ptr<CameraState> cameraByUsbPath(std::string_view path) const;
    std::shared_ptr<CameraState> camera(int index) const;
    const std::vector<std::shared_ptr<NodeState>>& nodes() const { return nodes_; }

    // The shadow path standing in for `path`, if it is redirected for this use.
    std::optional<std::string> shadowPath(std::string_view path, PathUse use) const;

    // Marks every camera retired: its descriptors fail from now on, and a camera waiting to
    // come back (replug=MS) never does: its timer thread is joined here.
    void retire();

private:
    Model model_;
    ShadowTree shadow_;
    std::vector<std::shared_ptr<CameraState>> cameras_;
    std::vector<std::shared_ptr<NodeState>> nodes_;
    std::map<std::string, std::shared_ptr<NodeState>, std::less<>> nodesByPath_;
    std::map<std::string, std::shared_ptr<CameraState>, std::less<>> camerasByUsbPath_;
};

} // namespace simcam
