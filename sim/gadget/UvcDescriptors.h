#pragma once
// USB and UVC 1.0 descriptors of the VM test camera: one VideoControl interface (camera
// terminal -> streaming terminal) and one VideoStreaming interface with a single BULK IN
// endpoint. Bulk, because the virtual controller the VM uses (dummy_hcd) carries no
// isochronous transfers.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vmcam {

enum class Payload { Uncompressed, Mjpeg, FrameBased };

struct FrameSize {
    int width;
    int height;
    uint32_t interval;       // frame interval in 100 ns units (one per size)
    uint32_t maxFrameBytes;  // largest frame the camera sends at this size
};

struct StreamFormat {
    uint32_t fourcc;  // V4L2 code, e.g. YUYV, MJPG, H264
    Payload payload;
    std::vector<FrameSize> sizes;  // UVC frame index i + 1
};

struct Size {
    int width;
    int height;
};

// A format by name ("yuyv", "nv12", "mjpeg", "h264") at the given sizes; false for an
// unknown name.
bool makeStreamFormat(const std::string& name, const std::vector<Size>& sizes, int fps, StreamFormat* out);

// Largest configuration descriptor gadgetfs can return: it answers GET_DESCRIPTOR from a
// 256-byte buffer, and a longer reply makes the host's enumeration time out.
constexpr size_t kMaxConfigBytes = 256;

// One full configuration descriptor (all interfaces, class descriptors, the endpoint).
// highSpeed selects the bulk endpoint's packet size (512, else 64).
std::vector<uint8_t> buildConfiguration(const std::vector<StreamFormat>& formats,
                                        uint8_t endpointAddress, bool highSpeed);

// The device descriptor.
std::vector<uint8_t> buildDeviceDescriptor();

// String descriptor `index` (0: language list); empty when there is none.
std::vector<uint8_t> buildString(unsigned index);

// The bulk endpoint's descriptor as gadgetfs wants it on the endpoint file: tag 1, then
// the full-speed and high-speed descriptors.
std::vector<uint8_t> buildEndpointConfig(uint8_t endpointAddress);

} // namespace vmcam
