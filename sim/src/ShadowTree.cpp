#include "ShadowTree.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <unistd.h>

namespace fs = std::filesystem;

namespace simcam {

namespace {

void writeFile(const fs::path& path, const std::string& text)
{
    std::ofstream out(path);
    out << text;
    if (!out)
        throw std::runtime_error("simcam: cannot write " + path.string());
}

void touch(const fs::path& path)
{
    fs::create_directories(path.parent_path());
    writeFile(path, {});
}

std::string threeDigits(int n)
{
    char text[8];
    std::snprintf(text, sizeof text, "%03d", n);
    return text;
}

} // namespace

std::string ShadowTree::deviceDirFor(const Camera& camera, int index)
{
    if (camera.attachment == Attachment::Platform)
        return "/sys/devices/platform/simcam-camera." + std::to_string(index);
    const std::string bus = std::to_string(camera.busnum);
    return "/sys/devices/pci0000:00/0000:00:14.0/usb" + bus + "/" + bus + "-" +
           std::to_string(index + 1);
}

ShadowTree::ShadowTree(const Model& model) : owner_(getpid())
{
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/simcam-XXXXXX";
    if (!mkdtemp(pattern.data()))
        throw std::runtime_error("simcam: mkdtemp " + pattern + ": " + std::strerror(errno));
    root_ = pattern;
    try {
        build(model);
    } catch (...) {
        std::error_code ignored;
        fs::remove_all(root_, ignored);
        throw;
    }
}

ShadowTree::~ShadowTree()
{
    // A forked child shares the tree with its parent; only the creator removes it.
    if (getpid() != owner_)
        return;
    std::error_code ignored;
    fs::remove_all(root_, ignored);
}

void ShadowTree::build(const Model& model)
{
    const fs::path root(root_);
    fs::create_directories(root / "dev");
    fs::create_directories(classDir());
    const fs::path charDir = root / "sys/dev/char";
    fs::create_directories(charDir);
    unsigned minor = 0; // every node of the model in order, as ActiveModel numbers them
    for (const std::string& name : model.otherDevNames)
        touch(root / "dev" / name);

    for (size_t i = 0; i < model.cameras.size(); ++i) {
        const Camera& camera = model.cameras[i];
        const std::string device = root_ + deviceDirFor(camera, int(i));
        std::string nodesParent = device; // where video4linux/<node> hangs
        if (camera.attachment != Attachment::Platform) {
            const std::string bus = std::to_string(camera.busnum);
            const std::string interface = device + "/" + bus + "-" + std::to_string(i + 1) + ":1.0";
            nodesParent = interface;
            const fs::path hub = fs::path(device).parent_path();
            fs::create_directories(interface);
            writeFile(hub / "busnum", bus + "\n");
            writeFile(hub / "devnum", "1\n");
            const std::string& numbersDir =
                camera.attachment == Attachment::UsbDevice ? device : interface;
            writeFile(numbersDir + "/busnum", bus + "\n");
            writeFile(numbersDir + "/devnum", std::to_string(camera.devnum) + "\n");
            writeFile(device + "/product", camera.card + "\n");
            writeFile(device + "/idVendor", "1d6b\n");
            writeFile(device + "/idProduct", "0102\n");
            touch(root / "dev/bus/usb" / threeDigits(camera.busnum) / threeDigits(camera.devnum));
        }
        for (size_t n = 0; n < camera.nodes.size(); ++n) {
            const Node& node = camera.nodes[n];
            const fs::path nodeDir = fs::path(nodesParent) / "video4linux" / node.name;
            fs::create_directories(nodeDir);
            writeFile(nodeDir / "name", camera.card + "\n");
            writeFile(nodeDir / "index", std::to_string(n) + "\n");
            // What clients read to tell a video node from other character devices.
            const std::string number = "81:" + std::to_string(minor);
            writeFile(nodeDir / "dev", number + "\n");
            writeFile(nodeDir / "uevent", "MAJOR=81\nMINOR=" + std::to_string(minor) +
                                              "\nDEVNAME=" + node.name + "\n");
            fs::create_symlink(nodesParent, nodeDir / "device");
            fs::create_symlink(nodeDir, fs::path(classDir()) / node.name);
            fs::create_symlink(nodeDir, charDir / number);
            ++minor;
            touch(root / "dev" / node.name);
        }
    }
}

} // namespace simcam
