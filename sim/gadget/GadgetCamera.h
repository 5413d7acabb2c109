#pragma once
// A USB Video Class camera served from user space through gadgetfs. The host side is the
// kernel's real uvcvideo driver, reached over dummy_hcd's virtual bus.

#include <linux/usb/ch9.h>
#include <linux/usb/video.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <string>
#include <vector>

#include "UvcDescriptors.h"

namespace simcam {
class ContentSource;
}

namespace vmcam {

struct CameraOptions {
    std::string gadgetfs = "/dev/gadget";
    std::string udc = "dummy_udc";
    std::string endpoint = "ep1in-bulk";
    std::vector<StreamFormat> formats;
    // A write the host has not taken after this long means it stopped streaming (uvcvideo
    // tells a bulk camera nothing then): the write is abandoned so the next stream starts
    // with fresh data, not with a stale payload.
    int stallMs = 3000;
    // dwMaxPayloadTransferSize: the most bytes one payload (one header) carries. uvcvideo
    // reads bulk payloads in 16 KiB transfers, but a payload may span many of them, and
    // fewer, larger writes move raw pictures faster through the emulated bus.
    size_t maxPayload = 16384;
    bool verbose = false;
};

class GadgetCamera {
public:
    explicit GadgetCamera(CameraOptions options);
    ~GadgetCamera();
    GadgetCamera(const GadgetCamera&) = delete;
    GadgetCamera& operator=(const GadgetCamera&) = delete;

    // Makes the content of every format (coded clips are encoded here, before the host
    // can ask for a frame). False, with a message, when one cannot be made.
    bool prepareContent();
    // Starts the streaming threads, makes the calling thread the real-time control thread
    // and registers the device with gadgetfs; the host enumerates it from then on, so
    // call run() on the same thread right away.
    bool registerDevice();
    // Answers control requests until `stop` is set; returns the exit status.
    int run(const std::atomic<bool>& stop);

    unsigned long framesSent() const { return m_framesSent; }

private:
    static constexpr size_t kHeaderBytes = 2;
    static constexpr size_t kBulkPacket = 512;

    // ep0
    void handleSetup(const usb_ctrlrequest& r);
    void handleStandard(const usb_ctrlrequest& r);
    void handleStreamingControl(const usb_ctrlrequest& r);
    void stall(const usb_ctrlrequest& r);
    void ack();
    void reply(const void* data, size_t length, unsigned wLength);
    void enableEndpoint();
    void disableEndpoint();
    // Probe/commit state for a format and frame index (1-based; out of range -> 1).
    void fillControl(uvc_streaming_control* c, unsigned formatIndex, unsigned frameIndex) const;

    // streaming
    void streamLoop();
    void watchdogLoop();
    bool sendFrame(int fd, const std::vector<uint8_t>& frame, unsigned fid, unsigned generation);
    const std::vector<uint8_t>& frameFor(unsigned formatIndex, unsigned frameIndex, uint64_t index);

    CameraOptions m_options;
    uint8_t m_endpointAddress;
    int m_ep0 = -1;
    bool m_blindReply = false;  // an IN request was answered before its event was read

    // Per format, per frame size, per clip index.
    std::vector<std::vector<std::vector<std::vector<uint8_t>>>> m_frames;
    std::vector<uint8_t> m_payload;  // one payload on its way

    std::mutex m_mutex;
    std::condition_variable m_cond;
    int m_epFd = -1;
    uvc_streaming_control m_probe{};
    uvc_streaming_control m_commit{};
    bool m_committed = false;
    unsigned m_generation = 0;  // bumped by every COMMIT

    pthread_t m_streamThread{};
    std::atomic<int64_t> m_writeSince{0};  // monotonic ns a write started, 0 when none
    std::atomic<bool> m_abandoned{false};
    std::atomic<unsigned long> m_framesSent{0};
    std::atomic<unsigned long> m_streams{0};
};

} // namespace vmcam
