// uvc-gadget-camera: a USB camera for the VM tests. It serves a UVC device through
// gadgetfs on dummy_hcd's virtual bus, where the real uvcvideo driver binds to it, and
// streams pictures and bitstreams that decode (YUYV pictures, MJPEG frames, H.264 access
// units from the simulated camera's content generator).
//
//   modprobe dummy_hcd; modprobe gadgetfs; mkdir -p /dev/gadget
//   mount -t gadgetfs gadgetfs /dev/gadget
//   uvc-gadget-camera [--formats yuyv,mjpeg,h264] [--sizes 640x480[,WxH...]] [--fps 30] [-v]
//
// Every format is offered at every size, one frame interval each. gadgetfs returns at
// most 256 bytes of configuration descriptor, which limits the combinations (about
// three formats at one size, or one format at four sizes); the program says so.
//
// Runs until SIGTERM or SIGINT; ending the program unplugs the camera.

#include <signal.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include "GadgetCamera.h"

namespace {

std::atomic<bool> g_stop{false};
extern "C" void onStop(int) { g_stop = true; }

void usage(const char* argv0)
{
    std::fprintf(stderr,
                 "usage: %s [--gadgetfs DIR] [--udc NAME] [--endpoint NAME]\n"
                 "          [--formats yuyv,nv12,mjpeg,h264] [--sizes WxH[,WxH...]] [--fps N]\n"
                 "          [--payload BYTES] [--stall-ms N] [-v]\n",
                 argv0);
}

} // namespace

int main(int argc, char** argv)
{
    vmcam::CameraOptions options;
    std::string formats = "yuyv,mjpeg,h264";
    std::string sizeList = "640x480";
    int fps = 30;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "-v" || arg == "--verbose") {
            options.verbose = true;
        } else if (arg == "--gadgetfs" && hasValue) {
            options.gadgetfs = argv[++i];
        } else if (arg == "--udc" && hasValue) {
            options.udc = argv[++i];
        } else if (arg == "--endpoint" && hasValue) {
            options.endpoint = argv[++i];
        } else if (arg == "--formats" && hasValue) {
            formats = argv[++i];
        } else if ((arg == "--sizes" || arg == "--size") && hasValue) {
            sizeList = argv[++i];
        } else if (arg == "--fps" && hasValue) {
            fps = std::atoi(argv[++i]);
        } else if (arg == "--payload" && hasValue) {
            options.maxPayload = size_t(std::atol(argv[++i]));
        } else if (arg == "--stall-ms" && hasValue) {
            options.stallMs = std::atoi(argv[++i]);
        } else {
            usage(argv[0]);
            return 2;
        }
    }
    if (fps <= 0 || fps > 120 || options.stallMs <= 0 || options.maxPayload < 1024 ||
        options.maxPayload > (4u << 20)) {
        usage(argv[0]);
        return 2;
    }
    std::vector<vmcam::Size> sizes;
    std::stringstream sizeWords(sizeList);
    for (std::string word; std::getline(sizeWords, word, ',');) {
        vmcam::Size size{};
        if (std::sscanf(word.c_str(), "%dx%d", &size.width, &size.height) != 2 || size.width <= 0 ||
            size.height <= 0 || size.width % 2 || size.height % 2) {
            std::fprintf(stderr, "uvc-gadget-camera: bad size '%s'\n", word.c_str());
            return 2;
        }
        sizes.push_back(size);
    }
    std::stringstream list(formats);
    for (std::string name; std::getline(list, name, ',');) {
        vmcam::StreamFormat format;
        if (sizes.empty() || !vmcam::makeStreamFormat(name, sizes, fps, &format)) {
            std::fprintf(stderr, "uvc-gadget-camera: unknown format '%s'\n", name.c_str());
            return 2;
        }
        options.formats.push_back(format);
    }
    if (options.formats.empty()) {
        usage(argv[0]);
        return 2;
    }

    struct sigaction action {};
    action.sa_handler = onStop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);

    // Never destroyed: its threads may sit in a blocked write until the process ends.
    auto* camera = new vmcam::GadgetCamera(options);
    const int status = camera->prepareContent() && camera->registerDevice() ? camera->run(g_stop) : 1;
    std::fflush(stderr);
    _exit(status);
}
