#include "UvcDescriptors.h"

#include <linux/usb/ch9.h>
#include <linux/usb/video.h>

#include <cstring>

namespace vmcam {

namespace {

class Writer {
public:
    explicit Writer(std::vector<uint8_t>& out) : m_out(out) {}
    void u8(unsigned v) { m_out.push_back(uint8_t(v)); }
    void u16(unsigned v)
    {
        u8(v & 0xff);
        u8((v >> 8) & 0xff);
    }
    void u32(uint32_t v)
    {
        u16(v & 0xffff);
        u16(v >> 16);
    }
    // UVC format GUIDs: the FourCC followed by the fixed tail of the Microsoft media
    // subtype GUIDs.
    void guid(const char* fourcc)
    {
        static const uint8_t tail[12] = {0x00, 0x00, 0x10, 0x00, 0x80, 0x00,
                                         0x00, 0xaa, 0x00, 0x38, 0x9b, 0x71};
        for (int i = 0; i < 4; ++i)
            u8(uint8_t(fourcc[i]));
        for (uint8_t b : tail)
            u8(b);
    }
    size_t pos() const { return m_out.size(); }
    void patch16(size_t at, unsigned v)
    {
        m_out[at] = uint8_t(v & 0xff);
        m_out[at + 1] = uint8_t((v >> 8) & 0xff);
    }

private:
    std::vector<uint8_t>& m_out;
};

constexpr uint32_t fourcc(char a, char b, char c, char d)
{
    return uint32_t(uint8_t(a)) | uint32_t(uint8_t(b)) << 8 | uint32_t(uint8_t(c)) << 16 |
           uint32_t(uint8_t(d)) << 24;
}

const char* guidName(uint32_t code)
{
    if (code == fourcc('Y', 'U', 'Y', 'V'))
        return "YUY2";  // the GUID's name for the same layout
    if (code == fourcc('N', 'V', '1', '2'))
        return "NV12";
    if (code == fourcc('H', '2', '6', '4'))
        return "H264";
    return nullptr;
}

void frameDescriptor(Writer& w, const StreamFormat& format, const FrameSize& f, unsigned index)
{
    const bool frameBased = format.payload == Payload::FrameBased;
    const uint8_t subtype = format.payload == Payload::Uncompressed ? UVC_VS_FRAME_UNCOMPRESSED
                            : format.payload == Payload::Mjpeg      ? UVC_VS_FRAME_MJPEG
                                                                    : UVC_VS_FRAME_FRAME_BASED;
    const uint32_t bitRate = uint32_t(f.width) * uint32_t(f.height) * 16 * (10000000 / f.interval);
    w.u8(26 + 4);  // one discrete interval
    w.u8(USB_DT_CS_INTERFACE);
    w.u8(subtype);
    w.u8(index);  // bFrameIndex
    w.u8(0);      // bmCapabilities
    w.u16(unsigned(f.width));
    w.u16(unsigned(f.height));
    w.u32(bitRate);  // dwMinBitRate
    w.u32(bitRate);  // dwMaxBitRate
    if (!frameBased)
        w.u32(f.maxFrameBytes);  // dwMaxVideoFrameBufferSize
    w.u32(f.interval);           // dwDefaultFrameInterval
    w.u8(1);                     // bFrameIntervalType: one discrete interval
    if (frameBased)
        w.u32(0);  // dwBytesPerLine: variable
    w.u32(f.interval);
}

void formatDescriptor(Writer& w, const StreamFormat& f, unsigned index)
{
    const unsigned frames = unsigned(f.sizes.size());
    switch (f.payload) {
    case Payload::Uncompressed:
        w.u8(27);
        w.u8(USB_DT_CS_INTERFACE);
        w.u8(UVC_VS_FORMAT_UNCOMPRESSED);
        w.u8(index);
        w.u8(frames);  // bNumFrameDescriptors
        w.guid(guidName(f.fourcc));
        w.u8(f.fourcc == fourcc('N', 'V', '1', '2') ? 12 : 16);  // bBitsPerPixel
        w.u8(1);  // bDefaultFrameIndex
        w.u8(0);  // aspect ratio x
        w.u8(0);  // aspect ratio y
        w.u8(0);  // bmInterlaceFlags
        w.u8(0);  // bCopyProtect
        break;
    case Payload::Mjpeg:
        w.u8(11);
        w.u8(USB_DT_CS_INTERFACE);
        w.u8(UVC_VS_FORMAT_MJPEG);
        w.u8(index);
        w.u8(frames);  // bNumFrameDescriptors
        w.u8(0);  // bmFlags
        w.u8(1);  // bDefaultFrameIndex
        w.u8(0);
        w.u8(0);
        w.u8(0);
        w.u8(0);
        break;
    case Payload::FrameBased:
        w.u8(28);
        w.u8(USB_DT_CS_INTERFACE);
        w.u8(UVC_VS_FORMAT_FRAME_BASED);
        w.u8(index);
        w.u8(frames);  // bNumFrameDescriptors
        w.guid(guidName(f.fourcc));
        w.u8(0);  // bBitsPerPixel: not meaningful for a bitstream
        w.u8(1);  // bDefaultFrameIndex
        w.u8(0);
        w.u8(0);
        w.u8(0);
        w.u8(0);
        w.u8(1);  // bVariableSize
        break;
    }
    for (unsigned i = 0; i < frames; ++i)
        frameDescriptor(w, f, f.sizes[i], i + 1);
}

} // namespace

bool makeStreamFormat(const std::string& name, const std::vector<Size>& sizes, int fps, StreamFormat* out)
{
    if (name == "yuyv")
        *out = {fourcc('Y', 'U', 'Y', 'V'), Payload::Uncompressed, {}};
    else if (name == "nv12")
        *out = {fourcc('N', 'V', '1', '2'), Payload::Uncompressed, {}};
    else if (name == "mjpeg")
        *out = {fourcc('M', 'J', 'P', 'G'), Payload::Mjpeg, {}};
    else if (name == "h264")
        *out = {fourcc('H', '2', '6', '4'), Payload::FrameBased, {}};
    else
        return false;
    for (const Size& size : sizes) {
        const uint32_t pixels = uint32_t(size.width) * uint32_t(size.height);
        // Raw frames are exactly this big; coded ones stay well below a YUYV picture.
        const uint32_t bytes = name == "nv12" ? pixels * 3 / 2 : pixels * 2;
        out->sizes.push_back({size.width, size.height, uint32_t(10000000 / fps), bytes});
    }
    return true;
}

std::vector<uint8_t> buildConfiguration(const std::vector<StreamFormat>& formats,
                                        uint8_t endpointAddress, bool highSpeed)
{
    std::vector<uint8_t> out;
    Writer w(out);
    // Configuration; wTotalLength is patched at the end. No interface association
    // descriptor and no colour matching descriptor: both are optional for a UVC 1.0
    // device and would cost bytes of the 256 gadgetfs can return.
    w.u8(USB_DT_CONFIG_SIZE);
    w.u8(USB_DT_CONFIG);
    const size_t totalAt = w.pos();
    w.u16(0);
    w.u8(2);     // bNumInterfaces
    w.u8(1);     // bConfigurationValue
    w.u8(0);     // iConfiguration
    w.u8(0x80);  // bus powered
    w.u8(250);   // 500 mA

    // VideoControl interface 0: no interrupt endpoint, no controls.
    w.u8(USB_DT_INTERFACE_SIZE);
    w.u8(USB_DT_INTERFACE);
    w.u8(0);
    w.u8(0);
    w.u8(0);
    w.u8(USB_CLASS_VIDEO);
    w.u8(UVC_SC_VIDEOCONTROL);
    w.u8(0);
    w.u8(0);  // iInterface
    const size_t vcHeader = w.pos();
    w.u8(13);
    w.u8(USB_DT_CS_INTERFACE);
    w.u8(UVC_VC_HEADER);
    w.u16(0x0100);  // UVC 1.0
    w.u16(0);       // wTotalLength, patched
    w.u32(48000000);
    w.u8(1);  // one streaming interface:
    w.u8(1);  // number 1
    // Camera input terminal, id 1, no controls.
    w.u8(18);
    w.u8(USB_DT_CS_INTERFACE);
    w.u8(UVC_VC_INPUT_TERMINAL);
    w.u8(1);
    w.u16(UVC_ITT_CAMERA);
    w.u8(0);
    w.u8(0);
    w.u16(0);
    w.u16(0);
    w.u16(0);
    w.u8(3);  // bControlSize
    w.u8(0);
    w.u8(0);
    w.u8(0);
    // Streaming output terminal, id 2, fed by terminal 1.
    w.u8(9);
    w.u8(USB_DT_CS_INTERFACE);
    w.u8(UVC_VC_OUTPUT_TERMINAL);
    w.u8(2);
    w.u16(UVC_TT_STREAMING);
    w.u8(0);
    w.u8(1);
    w.u8(0);
    w.patch16(vcHeader + 5, unsigned(w.pos() - vcHeader));

    // VideoStreaming interface 1 with its one bulk endpoint.
    w.u8(USB_DT_INTERFACE_SIZE);
    w.u8(USB_DT_INTERFACE);
    w.u8(1);
    w.u8(0);
    w.u8(1);
    w.u8(USB_CLASS_VIDEO);
    w.u8(UVC_SC_VIDEOSTREAMING);
    w.u8(0);
    w.u8(0);
    const size_t vsHeader = w.pos();
    w.u8(13 + formats.size());  // one bmaControls byte per format
    w.u8(USB_DT_CS_INTERFACE);
    w.u8(UVC_VS_INPUT_HEADER);
    w.u8(unsigned(formats.size()));
    w.u16(0);  // wTotalLength, patched
    w.u8(endpointAddress);
    w.u8(0);  // bmInfo
    w.u8(2);  // bTerminalLink: the streaming terminal
    w.u8(0);  // bStillCaptureMethod
    w.u8(0);  // bTriggerSupport
    w.u8(0);  // bTriggerUsage
    w.u8(1);  // bControlSize
    for (size_t i = 0; i < formats.size(); ++i)
        w.u8(0);
    for (size_t i = 0; i < formats.size(); ++i)
        formatDescriptor(w, formats[i], unsigned(i + 1));
    w.patch16(vsHeader + 4, unsigned(w.pos() - vsHeader));

    w.u8(USB_DT_ENDPOINT_SIZE);
    w.u8(USB_DT_ENDPOINT);
    w.u8(endpointAddress);
    w.u8(USB_ENDPOINT_XFER_BULK);
    w.u16(highSpeed ? 512 : 64);
    w.u8(0);

    w.patch16(totalAt, unsigned(out.size()));
    return out;
}

std::vector<uint8_t> buildDeviceDescriptor()
{
    usb_device_descriptor d{};
    d.bLength = USB_DT_DEVICE_SIZE;
    d.bDescriptorType = USB_DT_DEVICE;
    d.bcdUSB = 0x0200;
    d.bDeviceClass = USB_CLASS_PER_INTERFACE;
    d.bMaxPacketSize0 = 64;
    d.idVendor = 0x1d6b;   // Linux Foundation
    d.idProduct = 0x0106;  // a test product id
    d.bcdDevice = 0x0100;
    d.iManufacturer = 1;
    d.iProduct = 2;
    d.iSerialNumber = 3;
    d.bNumConfigurations = 1;
    std::vector<uint8_t> out(USB_DT_DEVICE_SIZE);
    std::memcpy(out.data(), &d, USB_DT_DEVICE_SIZE);
    return out;
}

std::vector<uint8_t> buildString(unsigned index)
{
    static const char* const strings[] = {nullptr, "VM test lab", "VM Bulk Camera", "0001"};
    if (index == 0)
        return {4, USB_DT_STRING, 0x09, 0x04};  // US English
    if (index >= sizeof strings / sizeof strings[0])
        return {};
    const std::string text = strings[index];
    std::vector<uint8_t> out{uint8_t(2 + 2 * text.size()), USB_DT_STRING};
    for (char c : text) {
        out.push_back(uint8_t(c));
        out.push_back(0);
    }
    return out;
}

std::vector<uint8_t> buildEndpointConfig(uint8_t endpointAddress)
{
    std::vector<uint8_t> out;
    Writer w(out);
    w.u32(1);
    for (bool highSpeed : {false, true}) {
        w.u8(USB_DT_ENDPOINT_SIZE);
        w.u8(USB_DT_ENDPOINT);
        w.u8(endpointAddress);
        w.u8(USB_ENDPOINT_XFER_BULK);
        w.u16(highSpeed ? 512 : 64);
        w.u8(0);
    }
    return out;
}

} // namespace vmcam
