// Named starting points for a model, and small helpers on model data.
#include "simcam/Model.h"

#include <cstdio>
#include <stdexcept>

namespace simcam {

namespace {

std::vector<Interval> standardIntervals()
{
    return {{1, 30}, {1, 15}};
}

std::vector<FrameSize> standardSizes()
{
    return {{1920, 1080, standardIntervals()},
            {1280, 720, standardIntervals()},
            {640, 480, standardIntervals()}};
}

Format discrete(uint32_t fourcc, std::vector<FrameSize> sizes = standardSizes())
{
    Format f;
    f.fourcc = fourcc;
    f.description = formatDescription(fourcc);
    f.sizes = std::move(sizes);
    return f;
}

// One USB camera as a UVC device shows it: a capture node and a metadata node.
Model singleCamera(std::vector<Format> formats)
{
    Node capture;
    capture.name = "video0";
    capture.formats = std::move(formats);
    Node metadata;
    metadata.name = "video1";
    metadata.kind = NodeKind::Metadata;

    Camera camera;
    camera.nodes = {capture, metadata};
    Model model;
    model.cameras = {camera};
    return model;
}

} // namespace

std::vector<std::string> presetNames()
{
    return {"h264", "hevc", "hevc-large", "mjpeg", "yuyv", "nv12", "multi"};
}

Model preset(std::string_view name)
{
    if (name == "h264")
        return singleCamera({discrete(kFourccH264)});
    if (name == "hevc")
        return singleCamera({discrete(kFourccHEVC)});
    if (name == "hevc-large") {
        // 1080p access units above 3,110,400 bytes, still inside the 2*w*h image size.
        Model m = singleCamera({discrete(kFourccHEVC, {{1920, 1080, standardIntervals()}})});
        ContentOptions& content = m.cameras[0].nodes[0].content;
        content.hevcMinFrameBytes = 3110401;
        content.clipFrames = content.keyInterval = 10; // quicker to encode, same sizes

        return m;
    }
    if (name == "mjpeg")
        return singleCamera({discrete(kFourccMJPG)});
    if (name == "yuyv")
        return singleCamera({discrete(kFourccYUYV)});
    if (name == "nv12")
        return singleCamera({discrete(kFourccNV12)});
    if (name == "multi") {
        // Leads with a format the element does not use, with a size range.
        Format rgb;
        rgb.fourcc = kFourccRGB24;
        rgb.description = formatDescription(kFourccRGB24);
        rgb.stepwise = StepwiseSize{160, 1920, 16, 120, 1080, 8, {{1, 30}}};
        return singleCamera({rgb, discrete(kFourccMJPG), discrete(kFourccH264),
                             discrete(kFourccHEVC), discrete(kFourccYUYV),
                             discrete(kFourccNV12)});
    }
    throw std::invalid_argument("unknown preset '" + std::string(name) + "'");
}

std::string usbDevicePath(const Camera& camera)
{
    if (camera.attachment == Attachment::Platform)
        return {};
    char path[32];
    std::snprintf(path, sizeof path, "/dev/bus/usb/%03d/%03d", camera.busnum, camera.devnum);
    return path;
}

std::string formatDescription(uint32_t fourcc)
{
    switch (fourcc) {
    case kFourccH264: return "H.264";
    case kFourccHEVC: return "HEVC";
    case kFourccMJPG: return "Motion-JPEG";
    case kFourccYUYV: return "YUYV 4:2:2";
    case kFourccNV12: return "Y/UV 4:2:0";
    case kFourccRGB24: return "24-bit RGB 8-8-8";
    default: break;
    }
    std::string text(4, ' ');
    for (int i = 0; i < 4; ++i)
        text[size_t(i)] = char((fourcc >> (8 * i)) & 0xff);
    return text;
}

} // namespace simcam
