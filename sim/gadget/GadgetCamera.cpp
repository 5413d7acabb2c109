#include "GadgetCamera.h"

#include <fcntl.h>
#include <linux/usb/gadgetfs.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <thread>

#include "content/ContentSource.h"

namespace vmcam {

namespace {

void say(const char* format, ...) __attribute__((format(printf, 1, 2)));
void say(const char* format, ...)
{
    char line[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    std::fprintf(stderr, "uvc-gadget-camera: %s\n", line);
}

int64_t nowNs()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return int64_t(t.tv_sec) * 1000000000 + t.tv_nsec;
}

std::string fourccText(uint32_t code)
{
    return std::string{char(code), char(code >> 8), char(code >> 16), char(code >> 24)};
}

// Interrupts the streaming thread's blocked write (gadgetfs then dequeues the request).
extern "C" void onWake(int) {}

// Frames kept per format and size: the coded clips loop over this many, and raw pictures
// repeat after it. All are made before the device appears (encoding is slow on the VM's
// emulated CPU), so streaming costs nothing but copies.
constexpr int kClipFrames = 10;

} // namespace

GadgetCamera::GadgetCamera(CameraOptions options) : m_options(std::move(options))
{
    const char* digits = std::strpbrk(m_options.endpoint.c_str(), "0123456789");
    m_endpointAddress = uint8_t(USB_DIR_IN | (digits ? std::atoi(digits) : 1));
    fillControl(&m_probe, 1, 1);
    m_commit = m_probe;
    m_payload.resize(m_options.maxPayload);

    struct sigaction action {};
    action.sa_handler = onWake;  // no SA_RESTART: the write must return EINTR
    sigemptyset(&action.sa_mask);
    sigaction(SIGUSR1, &action, nullptr);
}

GadgetCamera::~GadgetCamera()
{
    if (m_ep0 >= 0)
        ::close(m_ep0);
}

bool GadgetCamera::prepareContent()
{
    const int64_t start = nowNs();
    for (const StreamFormat& f : m_options.formats) {
        std::vector<std::vector<std::vector<uint8_t>>> sizes;
        for (const FrameSize& size : f.sizes) {
            simcam::ContentOptions options;
            options.clipFrames = kClipFrames;
            options.frameRate = int(10000000 / size.interval);
            // Every loop of the clip starts with an IDR.
            options.keyInterval = kClipFrames;
            auto source = simcam::ContentSource::get(f.fourcc, size.width, size.height, options);
            if (!source) {
                say("no content for %s %dx%d", fourccText(f.fourcc).c_str(), size.width, size.height);
                return false;
            }
            std::vector<std::vector<uint8_t>> frames(kClipFrames);
            for (int i = 0; i < kClipFrames; ++i) {
                frames[i].resize(source->frameSize(uint64_t(i)));
                if (frames[i].size() > size.maxFrameBytes ||
                    source->render(uint64_t(i), frames[i].data(), frames[i].size()) != frames[i].size()) {
                    say("frame %d of %s %dx%d is %zu bytes, more than the %u announced", i,
                        fourccText(f.fourcc).c_str(), size.width, size.height, frames[i].size(),
                        size.maxFrameBytes);
                    return false;
                }
            }
            sizes.push_back(std::move(frames));
        }
        m_frames.push_back(std::move(sizes));
    }
    say("content for %zu formats ready in %.1f s", m_frames.size(), double(nowNs() - start) / 1e9);
    return true;
}

bool GadgetCamera::registerDevice()
{
    const std::string path = m_options.gadgetfs + "/" + m_options.udc;
    m_ep0 = ::open(path.c_str(), O_RDWR);
    if (m_ep0 < 0) {
        say("%s: %s (is gadgetfs mounted and dummy_hcd loaded?)", path.c_str(), std::strerror(errno));
        return false;
    }

    std::thread streamer(&GadgetCamera::streamLoop, this);
    m_streamThread = streamer.native_handle();
    streamer.detach();
    std::thread(&GadgetCamera::watchdogLoop, this).detach();

    // dummy_hcd completes a control OUT transfer as soon as it has copied the data, so the
    // host's next request can arrive before we have read this one's data stage; gadgetfs
    // then throws the data away. Running the control thread SCHED_FIFO on a one-CPU VM
    // makes it read every data stage before the host gets to issue the next request.
    // All of this before the device appears: requests that come before the first read
    // of ep0 are stalled by gadgetfs, and uvcvideo gives up on a stalled probe.
    mlockall(MCL_CURRENT | MCL_FUTURE);
    sched_param param{};
    param.sched_priority = 50;
    if (pthread_setschedparam(pthread_self(), SCHED_FIFO, &param) != 0)
        say("SCHED_FIFO not available: control requests may be lost");

    const std::vector<uint8_t> fullSpeed = buildConfiguration(m_options.formats, m_endpointAddress, false);
    const std::vector<uint8_t> highSpeed = buildConfiguration(m_options.formats, m_endpointAddress, true);
    if (highSpeed.size() > kMaxConfigBytes) {
        say("configuration is %zu bytes; gadgetfs returns at most %zu: offer fewer formats",
            highSpeed.size(), kMaxConfigBytes);
        return false;
    }
    std::vector<uint8_t> blob{0, 0, 0, 0};  // tag 0: device configuration
    blob.insert(blob.end(), fullSpeed.begin(), fullSpeed.end());
    blob.insert(blob.end(), highSpeed.begin(), highSpeed.end());
    const std::vector<uint8_t> device = buildDeviceDescriptor();
    blob.insert(blob.end(), device.begin(), device.end());
    if (::write(m_ep0, blob.data(), blob.size()) < 0) {
        say("gadgetfs refused the descriptors: %s", std::strerror(errno));
        return false;
    }
    std::string names;
    for (const StreamFormat& f : m_options.formats)
        names += " " + fourccText(f.fourcc);
    say("registered on %s: %zu-byte configuration, bulk endpoint %s 0x%02x, formats%s",
        m_options.udc.c_str(), highSpeed.size(), m_options.endpoint.c_str(), m_endpointAddress,
        names.c_str());
    return true;
}

int GadgetCamera::run(const std::atomic<bool>& stop)
{
    while (!stop) {
        pollfd pfd{m_ep0, POLLIN | POLLOUT, 0};
        const int n = poll(&pfd, 1, 200);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            say("poll: %s", std::strerror(errno));
            return 1;
        }
        if (n == 0)
            continue;
        if ((pfd.revents & POLLOUT) && !(pfd.revents & POLLIN)) {
            // gadgetfs waits for the data of an IN request whose SETUP event we never saw
            // (it was dropped with a lost SET_CUR): that can only be the GET_CUR(probe)
            // uvcvideo sends right after SET_CUR(probe). Answer it from the current state.
            uvc_streaming_control c;
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                c = m_probe;
            }
            say("answering a pending IN request with the probe state");
            if (::write(m_ep0, &c, sizeof c) >= 0)
                m_blindReply = true;
            continue;
        }
        if (pfd.revents & POLLHUP) {  // an aborted request: the next read reports it
            char x;
            if (::read(m_ep0, &x, 0) < 0 && m_options.verbose)
                say("ep0 abort: %s", std::strerror(errno));
            continue;
        }
        usb_gadgetfs_event events[5];
        const ssize_t got = ::read(m_ep0, events, sizeof events);
        if (got < 0) {
            if (errno == EAGAIN || errno == EINTR || errno == ESHUTDOWN || errno == EIDRM)
                continue;  // a bus reset in progress
            say("ep0 read: %s", std::strerror(errno));
            return 1;
        }
        for (size_t i = 0; i < size_t(got) / sizeof events[0]; ++i) {
            switch (events[i].type) {
            case GADGETFS_CONNECT: say("connected (speed %d)", int(events[i].u.speed)); break;
            case GADGETFS_DISCONNECT: {
                say("disconnected after %lu frames", m_framesSent.load());
                std::lock_guard<std::mutex> lock(m_mutex);
                m_committed = false;
                ++m_generation;
                break;
            }
            case GADGETFS_SETUP: handleSetup(events[i].u.setup); break;
            default: break;
            }
        }
    }
    say("stopping: %lu frames sent in %lu streams", m_framesSent.load(), m_streams.load());
    return 0;
}

// ---- control requests ---------------------------------------------------------------

void GadgetCamera::stall(const usb_ctrlrequest& r)
{
    // gadgetfs stalls when the data stage goes the wrong way.
    char x;
    const ssize_t s = (r.bRequestType & USB_DIR_IN) ? ::read(m_ep0, &x, 0) : ::write(m_ep0, &x, 0);
    if (s >= 0 && m_options.verbose)
        say("could not stall request %02x", r.bRequest);
}

void GadgetCamera::ack()
{
    char x;
    if (::read(m_ep0, &x, 0) < 0 && m_options.verbose)
        say("ep0 status stage: %s", std::strerror(errno));
}

void GadgetCamera::reply(const void* data, size_t length, unsigned wLength)
{
    if (::write(m_ep0, data, std::min<size_t>(length, wLength)) < 0)
        say("ep0 write: %s", std::strerror(errno));
}

void GadgetCamera::handleSetup(const usb_ctrlrequest& r)
{
    if (m_blindReply && (r.bRequestType & USB_DIR_IN)) {
        // The request answered blind: leave gadgetfs's SETUP state without queueing data
        // again (a stall with no transfer pending is cleared by the next SETUP).
        m_blindReply = false;
        stall(r);
        return;
    }
    m_blindReply = false;
    if (m_options.verbose)
        say("SETUP %02x %02x value %04x index %04x length %u", r.bRequestType, r.bRequest,
            r.wValue, r.wIndex, r.wLength);
    if ((r.bRequestType & USB_TYPE_MASK) == USB_TYPE_STANDARD) {
        handleStandard(r);
        return;
    }
    const unsigned interface = r.wIndex & 0xff;
    const unsigned selector = r.wValue >> 8;
    if ((r.bRequestType & USB_TYPE_MASK) == USB_TYPE_CLASS && interface == 1 &&
        (selector == UVC_VS_PROBE_CONTROL || selector == UVC_VS_COMMIT_CONTROL)) {
        handleStreamingControl(r);
        return;
    }
    stall(r);  // the camera has no VideoControl controls
}

void GadgetCamera::handleStandard(const usb_ctrlrequest& r)
{
    switch (r.bRequest) {
    case USB_REQ_GET_DESCRIPTOR:
        // gadgetfs answers device and configuration descriptors itself; strings are ours.
        if ((r.wValue >> 8) == USB_DT_STRING) {
            const std::vector<uint8_t> s = buildString(r.wValue & 0xff);
            if (!s.empty()) {
                reply(s.data(), s.size(), r.wLength);
                return;
            }
        }
        break;
    case USB_REQ_SET_CONFIGURATION:
        if (r.wValue & 0xff)
            enableEndpoint();
        else
            disableEndpoint();
        ack();
        return;
    case USB_REQ_SET_INTERFACE: ack(); return;
    case USB_REQ_GET_INTERFACE: {
        const uint8_t alternate = 0;
        reply(&alternate, 1, r.wLength);
        return;
    }
    default: break;
    }
    stall(r);
}

void GadgetCamera::fillControl(uvc_streaming_control* c, unsigned formatIndex, unsigned frameIndex) const
{
    if (formatIndex < 1 || formatIndex > m_options.formats.size())
        formatIndex = 1;
    const StreamFormat& format = m_options.formats[formatIndex - 1];
    if (frameIndex < 1 || frameIndex > format.sizes.size())
        frameIndex = 1;
    const FrameSize& f = format.sizes[frameIndex - 1];
    std::memset(c, 0, sizeof *c);
    c->bmHint = 1;  // keep the frame interval
    c->bFormatIndex = uint8_t(formatIndex);
    c->bFrameIndex = uint8_t(frameIndex);
    c->dwFrameInterval = f.interval;
    c->dwMaxVideoFrameSize = f.maxFrameBytes;
    c->dwMaxPayloadTransferSize = uint32_t(m_options.maxPayload);
    c->dwClockFrequency = 48000000;
    c->bmFramingInfo = 3;  // FID and EOF are used
    c->bPreferedVersion = c->bMinVersion = c->bMaxVersion = 1;
}

void GadgetCamera::handleStreamingControl(const usb_ctrlrequest& r)
{
    const bool probe = (r.wValue >> 8) == UVC_VS_PROBE_CONTROL;
    uvc_streaming_control c;
    const unsigned length = std::min<unsigned>(r.wLength, sizeof c);
    switch (r.bRequest) {
    case UVC_SET_CUR: {
        uint8_t data[64] = {};
        const ssize_t n = ::read(m_ep0, data, std::min<size_t>(r.wLength, sizeof data));
        if (n < 0) {
            // EIDRM: the host's next SETUP came before we read this data stage.
            say("SET_CUR data lost: %s", std::strerror(errno));
            return;
        }
        std::memcpy(&c, data, std::min<size_t>(size_t(n), sizeof c));
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (probe) {
                fillControl(&m_probe, c.bFormatIndex, c.bFrameIndex);
                // A probe means the host is (re)negotiating and not streaming: whatever
                // is still queued belongs to the last stream.
                m_committed = false;
            } else {
                fillControl(&m_commit, c.bFormatIndex, c.bFrameIndex);
                m_committed = true;
            }
            ++m_generation;
        }
        m_cond.notify_all();
        if (m_writeSince.load() != 0)
            pthread_kill(m_streamThread, SIGUSR1);
        say("%s format %u frame %u", probe ? "PROBE" : "COMMIT", unsigned(c.bFormatIndex),
            unsigned(c.bFrameIndex));
        return;
    }
    case UVC_GET_CUR: {
        std::lock_guard<std::mutex> lock(m_mutex);
        c = probe ? m_probe : m_commit;
        break;
    }
    case UVC_GET_MIN:
    case UVC_GET_DEF: fillControl(&c, 1, 1); break;
    case UVC_GET_MAX: {
        const unsigned last = unsigned(m_options.formats.size());
        fillControl(&c, last, unsigned(m_options.formats[last - 1].sizes.size()));
        break;
    }
    case UVC_GET_RES: std::memset(&c, 0, sizeof c); break;
    case UVC_GET_LEN: {
        const uint8_t len[2] = {uint8_t(sizeof c), 0};
        reply(len, 2, r.wLength);
        return;
    }
    case UVC_GET_INFO: {
        const uint8_t info = 3;  // GET and SET supported
        reply(&info, 1, r.wLength);
        return;
    }
    default: stall(r); return;
    }
    reply(&c, length, r.wLength);
}

void GadgetCamera::enableEndpoint()
{
    disableEndpoint();
    const std::string path = m_options.gadgetfs + "/" + m_options.endpoint;
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        say("%s: %s", path.c_str(), std::strerror(errno));
        return;
    }
    const std::vector<uint8_t> config = buildEndpointConfig(m_endpointAddress);
    if (::write(fd, config.data(), config.size()) < 0) {
        say("configuring %s: %s", path.c_str(), std::strerror(errno));
        ::close(fd);
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_epFd = fd;
    }
    m_cond.notify_all();
    say("%s enabled", m_options.endpoint.c_str());
}

void GadgetCamera::disableEndpoint()
{
    int old;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        old = m_epFd;
        m_epFd = -1;
        m_committed = false;
        ++m_generation;
    }
    if (old < 0)
        return;
    if (m_writeSince.load() != 0)
        pthread_kill(m_streamThread, SIGUSR1);
    ::close(old);
}

// ---- streaming ----------------------------------------------------------------------

const std::vector<uint8_t>& GadgetCamera::frameFor(unsigned formatIndex, unsigned frameIndex, uint64_t index)
{
    const auto& frames = m_frames[formatIndex - 1][frameIndex - 1];
    return frames[index % frames.size()];
}

bool GadgetCamera::sendFrame(int fd, const std::vector<uint8_t>& frame, unsigned fid, unsigned generation)
{
    const size_t maxPayload = m_options.maxPayload;
    uint8_t* payload = m_payload.data();
    const size_t length = frame.size();
    for (size_t offset = 0; offset < length;) {
        size_t n = std::min(length - offset, maxPayload - kHeaderBytes);
        bool last = offset + n == length;
        // A payload shorter than dwMaxPayloadTransferSize ends the host's transfer only
        // with a short packet; one of whole packets would run into the next payload.
        // Such a last payload gives its final byte to one more payload.
        if (last && (n + kHeaderBytes) % kBulkPacket == 0 && n + kHeaderBytes < maxPayload) {
            --n;
            last = false;
        }
        payload[0] = kHeaderBytes;
        payload[1] = uint8_t(UVC_STREAM_EOH | fid | (last ? UVC_STREAM_EOF : 0));
        std::memcpy(payload + kHeaderBytes, frame.data() + offset, n);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_generation != generation)
                return false;
            m_abandoned = false;
            m_writeSince = nowNs();
        }
        const ssize_t written = ::write(fd, payload, n + kHeaderBytes);
        const int error = errno;
        m_writeSince = 0;
        if (written < 0) {
            if (error == EINTR && m_abandoned.exchange(false))
                say("host stopped reading: stream ends after %lu frames", m_framesSent.load());
            else if (error != EINTR)
                say("bulk write: %s", std::strerror(error));
            return false;
        }
        offset += n;
    }
    return true;
}

void GadgetCamera::streamLoop()
{
    unsigned fid = 0;
    for (;;) {
        unsigned generation;
        int fd;
        unsigned formatIndex;
        unsigned frameIndex;
        uint32_t interval;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_cond.wait(lock, [this] { return m_committed && m_epFd >= 0; });
            generation = m_generation;
            fd = m_epFd;
            formatIndex = m_commit.bFormatIndex;
            frameIndex = m_commit.bFrameIndex;
            interval = m_commit.dwFrameInterval;
        }
        ++m_streams;
        const StreamFormat& format = m_options.formats[formatIndex - 1];
        const FrameSize& size = format.sizes[frameIndex - 1];
        say("streaming %s %dx%d, %u us per frame", fourccText(format.fourcc).c_str(), size.width,
            size.height, interval / 10);
        int64_t next = nowNs();
        for (uint64_t index = 0;; ++index) {
            fid ^= UVC_STREAM_FID;
            const bool sent = sendFrame(fd, frameFor(formatIndex, frameIndex, index), fid, generation);
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                if (m_generation != generation)
                    break;  // renegotiated, reconfigured or disconnected: start over
                if (!sent) {
                    m_committed = false;  // wait for the host's next COMMIT
                    break;
                }
            }
            ++m_framesSent;
            // Pace to the committed interval; a host that fell behind resets the clock.
            next += int64_t(interval) * 100;
            const int64_t now = nowNs();
            if (now - next > int64_t(interval) * 100)
                next = now;
            if (next > now) {
                const timespec until{time_t(next / 1000000000), long(next % 1000000000)};
                clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
            }
        }
    }
}

void GadgetCamera::watchdogLoop()
{
    // Only time this thread saw pass in small steps counts: on a busy host the whole VM,
    // or on a busy guest this thread, may not run for a second or more, and that is no
    // sign of a host that stopped reading.
    const int64_t limit = int64_t(m_options.stallMs) * 1000000;
    const int64_t step = 50 * 1000000;
    int64_t last = nowNs();
    int64_t watched = 0;  // pending time of the current write, as seen
    int64_t current = 0;  // which write (its start time)
    for (;;) {
        std::this_thread::sleep_for(std::chrono::nanoseconds(step));
        const int64_t now = nowNs();
        const int64_t gap = now - last;
        last = now;
        const int64_t since = m_writeSince.load();
        if (since == 0 || since != current) {
            current = since;
            watched = 0;
            continue;
        }
        watched += std::min(gap, 4 * step);
        if (watched > limit) {
            m_abandoned = true;
            pthread_kill(m_streamThread, SIGUSR1);
        }
    }
}

} // namespace vmcam
