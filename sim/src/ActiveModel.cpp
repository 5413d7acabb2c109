#include "ActiveModel.h"

#include <cctype>
#include <cstring>
#include <set>
#include <stdexcept>

namespace simcam {

namespace {

constexpr std::string_view kClassDir = "/sys/class/video4linux";
constexpr std::string_view kUsbDir = "/dev/bus/usb";
// Only the video4linux major's entries: the host's other devices stay visible.
constexpr std::string_view kCharDevPrefix = "/sys/dev/char/81:";

bool under(std::string_view path, std::string_view dir)
{
    return path.substr(0, dir.size()) == dir && (path.size() == dir.size() || path[dir.size()] == '/');
}

void checkName(const std::string& name, const char* what)
{
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos)
        throw std::invalid_argument(std::string("simcam: bad ") + what + " name '" + name + "'");
}

// Fills what a model may leave out and rejects what no camera could be.
Model normalised(Model model)
{
    std::set<std::string> names;
    std::set<std::string> usbPaths;
    for (Camera& camera : model.cameras) {
        if (camera.attachment != Attachment::Platform) {
            if (camera.busnum < 1 || camera.busnum > 999 || camera.devnum < 1 || camera.devnum > 999)
                throw std::invalid_argument("simcam: USB bus and device numbers must be 1..999");
            if (!usbPaths.insert(usbDevicePath(camera)).second)
                throw std::invalid_argument("simcam: two cameras at " + usbDevicePath(camera));
        }
        for (Node& node : camera.nodes) {
            checkName(node.name, "node");
            if (!names.insert(node.name).second)
                throw std::invalid_argument("simcam: node name '" + node.name + "' used twice");
            for (Format& f : node.formats) {
                if (f.description.empty())
                    f.description = formatDescription(f.fourcc);
                if (f.stepwise) {
                    StepwiseSize& s = *f.stepwise;
                    if (s.minWidth == 0 || s.minHeight == 0 || s.minWidth > s.maxWidth ||
                        s.minHeight > s.maxHeight)
                        throw std::invalid_argument("simcam: bad size range");
                    if (s.intervals.empty())
                        s.intervals = {Interval{}};
                }
                for (FrameSize& size : f.sizes) {
                    if (size.width == 0 || size.height == 0)
                        throw std::invalid_argument("simcam: zero frame size");
                    if (size.intervals.empty())
                        size.intervals = {Interval{}};
                    for (const Interval& i : size.intervals)
                        if (i.numerator == 0 || i.denominator == 0)
                            throw std::invalid_argument("simcam: zero frame interval");
                }
                if (!f.stepwise && f.sizes.empty())
                    throw std::invalid_argument("simcam: a format without sizes");
            }
        }
    }
    for (const std::string& other : model.otherDevNames) {
        checkName(other, "/dev");
        if (other == "bus")
            throw std::invalid_argument("simcam: /dev/bus is the usbfs directory");
    }
    return model;
}

} // namespace

bool maySimulate(const char* path)
{
    return path && path[0] == '/' &&
           (std::strncmp(path, "/dev", 4) == 0 ||
            std::strncmp(path, kClassDir.data(), kClassDir.size()) == 0 ||
            std::strncmp(path, kCharDevPrefix.data(), kCharDevPrefix.size()) == 0);
}

bool isCameraDevicePath(std::string_view path)
{
    if (under(path, kUsbDir))
        return true;
    if (path.substr(0, 5) != "/dev/")
        return false;
    std::string_view name = path.substr(5);
    if (name.size() < 5 || name.find('/') != std::string_view::npos)
        return false;
    static constexpr char kVideo[] = "video";
    for (size_t i = 0; i < 5; ++i)
        if (std::tolower(static_cast<unsigned char>(name[i])) != kVideo[i])
            return false;
    return true;
}

ActiveModel::ActiveModel(Model model) : model_(normalised(std::move(model))), shadow_(model_)
{
    unsigned minor = 0; // in the order ShadowTree numbers them
    for (size_t c = 0; c < model_.cameras.size(); ++c) {
        const Camera& config = model_.cameras[c];
        auto camera = std::make_shared<CameraState>(config, int(c));
        cameras_.push_back(camera);
        if (!camera->usbPath.empty())
            camerasByUsbPath_[camera->usbPath] = camera;
        for (const Node& n : config.nodes) {
            auto node = std::make_shared<NodeState>(n, camera, model_.unthrottled, minor++);
            camera->attach(node);
            nodes_.push_back(node);
            nodesByPath_[node->path] = node;
        }
    }
}

std::shared_ptr<NodeState> ActiveModel::nodeByPath(std::string_view path) const
{
    auto it = nodesByPath_.find(path);
    return it == nodesByPath_.end() ? nullptr : it->second;
}

std::shared_ptr<NodeState> ActiveModel::nodeByName(std::string_view name) const
{
    for (const auto& n : nodes_)
        if (n->config.name == name)
            return n;
    return nullptr;
}

std::shared_ptr<CameraState> ActiveModel::cameraByUsbPath(std::string_view path) const
{
    auto it = camerasByUsbPath_.find(path);
    return it == camerasByUsbPath_.end() ? nullptr : it->second;
}

std::shared_ptr<CameraState> ActiveModel::camera(int index) const
{
    if (index < 0 || size_t(index) >= cameras_.size())
        return nullptr;
    return cameras_[size_t(index)];
}

std::optional<std::string> ActiveModel::shadowPath(std::string_view path, PathUse use) const
{
    if (under(path, kClassDir) || path.substr(0, kCharDevPrefix.size()) == kCharDevPrefix)
        return root() + std::string(path);
    if (use == PathUse::Open)
        return std::nullopt;
    if (use == PathUse::List && (path == "/dev" || path == "/dev/"))
        return root() + "/dev";
    // The shadow holds exactly the model's nodes, so the host's others do not exist here.
    if (isCameraDevicePath(path) || (use == PathUse::List && under(path, "/dev/bus")))
        return root() + std::string(path);
    return std::nullopt;
}

ActiveModel::~ActiveModel()
{
    // Before the nodes go: a running timer must never hold the last reference to one.
    for (const auto& c : cameras_)
        c->stopReplugTimer();
}

void ActiveModel::retire()
{
    for (const auto& c : cameras_) {
        c->retired.store(true);
        c->stopReplugTimer();
    }
}

} // namespace simcam
