#include "StreamQueue.h"

#include "RealLibc.h"
#include "simcam/Chaos.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace simcam {

namespace {

using Clock = std::chrono::steady_clock;

std::atomic<int> g_runningClocks{0};

constexpr uint32_t kMaxBuffers = 32;

bool isCaptureType(uint32_t type)
{
    return type == V4L2_BUF_TYPE_VIDEO_CAPTURE;
}

Clock::duration periodOf(Interval i)
{
    if (i.numerator == 0 || i.denominator == 0)
        i = Interval{};
    return std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(double(i.numerator) / i.denominator));
}

timeval monotonicNow()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return timeval{ts.tv_sec, suseconds_t(ts.tv_nsec / 1000)};
}

} // namespace

StreamQueue::StreamQueue(int eventFd, std::shared_ptr<NodeState> node, uint64_t generation,
                         Recorder& recorder, bool nonBlocking)
    : eventFd_(eventFd), node_(std::move(node)), generation_(generation), recorder_(recorder),
      nonBlocking_(nonBlocking)
{
    std::lock_guard lock(m_);
    syncReadinessLocked();
}

StreamQueue::~StreamQueue()
{
    shutdown(false);
    if (ownEventFd_ >= 0)
        real::closeFd(ownEventFd_);
}

void StreamQueue::keepOwnDescriptor()
{
    std::lock_guard lock(m_);
    if (ownEventFd_ >= 0 || !fdUsable_)
        return;
    ownEventFd_ = real::libc().fcntl(eventFd_, F_DUPFD_CLOEXEC, 0);
    if (ownEventFd_ >= 0)
        eventFd_ = ownEventFd_;
}

int StreamQueue::runningClocks()
{
    return g_runningClocks.load();
}

int StreamQueue::requestBuffers(v4l2_requestbuffers& request)
{
    std::lock_guard control(control_);
    const uint32_t memory = request.memory;
    if (!isCaptureType(request.type) ||
        (memory != V4L2_MEMORY_DMABUF && memory != V4L2_MEMORY_MMAP))
        return EINVAL;
    const Faults faults = node_->faults();
    if (faults.busy)
        return EBUSY;
    if (faults.reqbufsErrno)
        return faults.reqbufsErrno;
    {
        std::lock_guard lock(m_);
        if (dead_)
            return ENODEV;
        if (streaming_)
            return EBUSY;
    }
    // The driver's streaming privilege: even freeing is refused to another descriptor.
    if (node_->queueClaimedByOther(this))
        return EBUSY;
    uint32_t granted = 0;
    if (request.count > 0)
        granted = faults.grantBuffers >= 0 ? uint32_t(faults.grantBuffers)
                                           : std::min(request.count, kMaxBuffers);
    if (granted > 0 && !node_->claimQueue(this))
        return EBUSY;

    // Freeing comes first, as in videobuf2: a failed allocation leaves no buffers.
    const uint32_t sizeimage = node_->format().sizeimage;
    std::vector<Buffer> fresh(granted);
    int error = 0;
    if (memory == V4L2_MEMORY_MMAP) {
        for (Buffer& b : fresh)
            if (!(b.memory = MmapBuffer::allocate(sizeimage, error)))
                break;
    }
    {
        std::lock_guard lock(m_);
        buffers_.clear();
        if (!error)
            buffers_ = std::move(fresh);
        queued_.clear();
        done_.clear();
        minLength_ = sizeimage;
        memory_ = buffers_.empty() ? 0 : memory;
        waitingForBuffers_ = true;
        syncReadinessLocked();
    }
    if (granted == 0 || error)
        node_->releaseQueue(this);
    if (error)
        return error;
    request.count = granted;
    request.flags = 0; // no cache hints: every buffer is coherent
    std::memset(request.reserved, 0, sizeof request.reserved);
    request.capabilities = V4L2_BUF_CAP_SUPPORTS_MMAP | V4L2_BUF_CAP_SUPPORTS_DMABUF |
                           V4L2_BUF_CAP_SUPPORTS_ORPHANED_BUFS;
    return 0;
}

uint32_t StreamQueue::offsetOf(uint32_t index) const
{
    // videobuf2 lays the planes out one after another, each starting on a page.
    return index * uint32_t(pageAligned(minLength_));
}

std::shared_ptr<MmapBuffer> StreamQueue::bufferAt(uint64_t offset, size_t length, int prot,
                                                  int flags, int& error) const
{
    std::lock_guard lock(m_);
    error = EINVAL;
    if (dead_) {
        error = ENODEV;
        return nullptr;
    }
    if (memory_ != V4L2_MEMORY_MMAP || !(flags & MAP_SHARED) || !(prot & PROT_READ))
        return nullptr;
    for (uint32_t i = 0; i < buffers_.size(); ++i) {
        if (offsetOf(i) != offset)
            continue;
        if (length == 0 || length > pageAligned(minLength_))
            return nullptr;
        error = 0;
        return buffers_[i].memory;
    }
    return nullptr;
}

int StreamQueue::exportBuffer(v4l2_exportbuffer& e) const
{
    std::lock_guard lock(m_);
    if (dead_)
        return ENODEV;
    if (!isCaptureType(e.type) || memory_ != V4L2_MEMORY_MMAP || e.index >= buffers_.size() ||
        e.plane != 0 || (e.flags & ~uint32_t(O_CLOEXEC | O_ACCMODE)))
        return EINVAL;
    // The buffer's own memfd under a new number: the caller maps or passes it on.
    const int fd = real::libc().fcntl(buffers_[e.index].memory->fd(),
                         (e.flags & O_CLOEXEC) ? F_DUPFD_CLOEXEC : F_DUPFD, 0);
    if (fd < 0)
        return errno;
    e.fd = fd;
    return 0;
}

short StreamQueue::pollEvents(short requested) const
{
    std::lock_guard lock(m_);
    if (dead_ || !streaming_ || errorPending_)
        return POLLERR;
    // Before the first QBUF a capture queue reports an error to readers (a V4L2 quirk).
    if (waitingForBuffers_ && (requested & (POLLIN | POLLRDNORM)))
        return POLLERR;
    return done_.empty() ? 0 : short(POLLIN | POLLRDNORM);
}

int StreamQueue::queryBuffer(v4l2_buffer& b) const
{
    std::lock_guard lock(m_);
    if (!isCaptureType(b.type) || b.index >= buffers_.size())
        return EINVAL;
    const Faults faults = node_->faults();
    if (faults.querybufErrno && (faults.querybufIndex < 0 || uint32_t(faults.querybufIndex) == b.index))
        return faults.querybufErrno;
    const Buffer& buf = buffers_[b.index];
    b.memory = memory_;
    b.length = minLength_;
    b.bytesused = buf.bytesused;
    b.field = V4L2_FIELD_NONE;
    b.flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | V4L2_BUF_FLAG_TSTAMP_SRC_SOE;
    if (memory_ == V4L2_MEMORY_MMAP) {
        b.m.offset = offsetOf(b.index);
        if (buf.memory->isMapped())
            b.flags |= V4L2_BUF_FLAG_MAPPED;
    } else {
        b.m.fd = buf.fd < 0 ? 0 : buf.fd;
    }
    if (buf.state == Buffer::State::Queued || buf.state == Buffer::State::Filling)
        b.flags |= V4L2_BUF_FLAG_QUEUED;
    if (buf.state == Buffer::State::Done)
        b.flags |= V4L2_BUF_FLAG_DONE;
    return 0;
}

int StreamQueue::queueBuffer(v4l2_buffer& b)
{
    std::lock_guard lock(m_);
    if (dead_)
        return ENODEV;
    if (!isCaptureType(b.type) || b.memory != memory_ || b.index >= buffers_.size())
        return EINVAL;
    Buffer& buf = buffers_[b.index];
    if (buf.state != Buffer::State::Idle)
        return EINVAL;

    const NodeSnapshot node = node_->snapshot();
    const Faults& f = node.faults;
    if (!streaming_ && f.qbufErrno && (f.qbufIndex < 0 || uint32_t(f.qbufIndex) == b.index))
        return f.qbufErrno;
    // The first `streamQbufAfter` frames go round; the requeue after that fails.
    if (streaming_ && f.streamQbufErrno && node.goodDequeues > uint64_t(f.streamQbufAfter))
        return f.streamQbufErrno;

    if (memory_ == V4L2_MEMORY_MMAP) {
        buf.length = minLength_;
    } else if (!buf.mapping || !buf.mapping->sameBuffer(b.m.fd, b.length)) {
        if (f.refuseMemfd && DmabufMapping::isMemfd(b.m.fd))
            return EINVAL;
        int error = 0;
        auto mapping = DmabufMapping::import(b.m.fd, b.length, minLength_, error);
        if (!mapping)
            return error;
        buf.mapping = std::move(mapping);
    }
    if (memory_ == V4L2_MEMORY_DMABUF) {
        buf.fd = b.m.fd;
        buf.length = uint32_t(buf.mapping->size());
    }
    buf.state = Buffer::State::Queued;
    queued_.push_back(b.index);
    waitingForBuffers_ = false;

    // As QUERYBUF would show it: cache hints the queue does not offer are dropped.
    b.flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | V4L2_BUF_FLAG_TSTAMP_SRC_SOE | V4L2_BUF_FLAG_QUEUED;
    if (buf.memory && buf.memory->isMapped())
        b.flags |= V4L2_BUF_FLAG_MAPPED;
    syncReadinessLocked();
    cv_.notify_all();
    return 0;
}

int StreamQueue::dequeueBuffer(v4l2_buffer& b)
{
    std::unique_lock lock(m_);
    if (dead_)
        return ENODEV;
    if (!isCaptureType(b.type))
        return EINVAL;
    for (;;) {
        if (!streaming_)
            return dead_ ? ENODEV : EINVAL;
        evaluateLocked();
        if (errorPending_) {
            // The unplug fault happens now. A descriptor whose camera is gone already (it
            // re-enumerated since, say) only fails: it must not unplug the new device.
            if (error_ == ENODEV && !gone_)
                node_->camera->unplug();
            return error_;
        }
        if (!done_.empty())
            break;
        if (nonBlocking_)
            return EAGAIN;
        cv_.wait(lock);
    }
    const uint32_t index = done_.front();
    const Chaos::Dequeue chaos = Chaos::nextDequeue(buffers_[index].bytesused > 0);
    if (chaos == Chaos::Dequeue::Fail)
        return EIO;
    if (chaos == Chaos::Dequeue::StrayIndex) {
        // A driver bug: an index beyond the queue; the filled buffer stays ready.
        fillDequeued(buffers_[index], uint32_t(buffers_.size()), b);
        return 0;
    }
    done_.pop_front();
    Buffer& buf = buffers_[index];
    buf.state = Buffer::State::Idle;
    fillDequeued(buf, index, b);
    if (const int bad = node_->faults().badIndex; bad >= 0)
        b.index = uint32_t(bad);  // the real buffer is lost to the client, as with such a driver
    if (chaos == Chaos::Dequeue::Oversize)
        b.bytesused = b.length + 4096;

    node_->countGoodDequeue();
    recorder_.frameDelivered();
    evaluateLocked();
    syncReadinessLocked();
    return 0;
}

void StreamQueue::fillDequeued(const Buffer& buf, uint32_t index, v4l2_buffer& out) const
{
    out.index = index;
    out.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    out.memory = memory_;
    out.bytesused = buf.bytesused;
    out.flags = buf.flags;
    out.field = V4L2_FIELD_NONE;
    out.timestamp = buf.timestamp;
    out.sequence = buf.sequence;
    if (memory_ == V4L2_MEMORY_MMAP)
        out.m.offset = offsetOf(std::min(index, uint32_t(buffers_.size())));
    else
        out.m.fd = buf.fd;
    out.length = buf.length;
}

int StreamQueue::streamOn()
{
    std::lock_guard control(control_);
    const Faults faults = node_->faults();
    if (faults.streamonErrno)
        return faults.streamonErrno;
    {
        std::lock_guard lock(m_);
        if (dead_)
            return ENODEV;
        if (buffers_.empty())
            return EINVAL;
        if (streaming_)
            return 0;
    }
    // The first request for a coded clip encodes it; the caller waits here as it waits for
    // a camera to start.
    const PixFormat format = node_->format();
    std::shared_ptr<const ContentSource> content = ContentSource::get(
        format.fourcc, int(format.width), int(format.height), node_->config.content);
    if (!content && format.fourcc != kFourccRGB24)
        return EIO;

    std::lock_guard lock(m_);
    node_->streamStarted(); // a stalled camera delivers to a fresh stream
    streaming_ = true;
    stop_ = false;
    wake_ = false;
    sequence_ = 0;
    contentIndex_ = 0;
    streamFormat_ = format;
    content_ = std::move(content);
    evaluateLocked();
    syncReadinessLocked();
    clock_ = std::thread(&StreamQueue::clockLoop, this);
    return 0;
}

int StreamQueue::streamOff()
{
    std::lock_guard control(control_);
    stopClock();
    std::lock_guard lock(m_);
    if (dead_)
        return ENODEV;
    // Every buffer comes back to user space, filled or not, as from a driver.
    streaming_ = false;
    for (Buffer& b : buffers_)
        b.state = Buffer::State::Idle;
    queued_.clear();
    done_.clear();
    waitingForBuffers_ = true;
    errorPending_ = false;
    error_ = 0;
    syncReadinessLocked();
    cv_.notify_all();
    return 0;
}

void StreamQueue::poke()
{
    std::lock_guard lock(m_);
    wake_ = true;
    evaluateLocked();
    cv_.notify_all();
}

void StreamQueue::shutdown(bool wake)
{
    std::lock_guard control(control_);
    stopClock();
    {
        std::lock_guard lock(m_);
        if (!wake && ownEventFd_ < 0)
            fdUsable_ = false;
        if (dead_)
            return;
        dead_ = true;
        streaming_ = false;
        buffers_.clear();
        memory_ = 0;
        queued_.clear();
        done_.clear();
        content_.reset();
        errorPending_ = true;
        error_ = ENODEV;
        syncReadinessLocked();
        cv_.notify_all();
    }
    node_->releaseQueue(this);
}

void StreamQueue::addGauges(Stats& stats) const
{
    std::lock_guard lock(m_);
    for (const Buffer& b : buffers_) {
        if (b.state == Buffer::State::Idle)
            ++stats.buffersDequeued;
        else
            ++stats.buffersQueued;
    }
    if (streaming_ && !gone_)
        ++stats.streams;
}

void StreamQueue::stopClock()
{
    {
        std::lock_guard lock(m_);
        stop_ = true;
        cv_.notify_all();
    }
    if (clock_.joinable())
        clock_.join();
}

void StreamQueue::clockLoop()
{
    // Named so that profilers and benchmarks can tell the camera's work from the client's.
    pthread_setname_np(pthread_self(), "simcam-clock");
    g_runningClocks.fetch_add(1);
    std::unique_lock lock(m_);
    Clock::time_point next = Clock::now();
    while (!stop_) {
        if (node_->unthrottled.load()) {
            // As fast as the consumer hands buffers back.
            cv_.wait(lock, [&] {
                return stop_ || wake_ || (!queued_.empty() && !stalled_ && !errorPending_);
            });
            if (stop_)
                break;
            if (wake_) {
                wake_ = false;
                evaluateLocked();
                if (gone_)
                    break;
            }
            if (!queued_.empty() && !stalled_ && !errorPending_)
                produceLocked(lock);
            next = Clock::now();
            continue;
        }
        cv_.wait_until(lock, next, [&] { return stop_ || wake_; });
        if (stop_)
            break;
        if (wake_) {
            // A fault change (an unplug, say) shows at once; frames keep their rhythm.
            wake_ = false;
            evaluateLocked();
            if (gone_)
                break; // nothing will come from this device again
            if (Clock::now() < next)
                continue;
        }
        evaluateLocked();
        if (gone_)
            break;
        const Clock::time_point now = Clock::now();
        next += periodOf(node_->timePerFrame());
        if (next < now)
            next = now; // fell behind: no burst of catch-up frames
        if (stalled_ || errorPending_)
            continue;
        if (queued_.empty()) {
            ++sequence_; // a frame the camera sent while no buffer was queued
            recorder_.frameDropped();
            continue;
        }
        produceLocked(lock);
    }
    g_runningClocks.fetch_sub(1);
}

bool StreamQueue::isKeyFrame(uint64_t index) const
{
    return !content_ || content_->isKeyFrame(index);
}

void StreamQueue::produceLocked(std::unique_lock<SyncMutex>& lock)
{
    const uint32_t index = queued_.front();
    queued_.pop_front();
    Buffer& buf = buffers_[index];
    buf.state = Buffer::State::Filling;
    const uint32_t sequence = sequence_++;
    const bool empty = node_->nextFrameEmpty();
    const uint32_t extraBytes = node_->faults().bytesusedExtra;
    const std::vector<std::vector<uint8_t>>& scripted = node_->config.scriptedFrames;
    // The control is the camera's, so a request from any descriptor counts.
    if (!empty && node_->takeKeyFrameRequest()) {
        for (int guard = 0; guard < 100000 && !isKeyFrame(contentIndex_); ++guard)
            ++contentIndex_;
    }
    // An empty frame does not consume the clip, so the bitstream stays decodable.
    const uint64_t frame = empty ? contentIndex_ : contentIndex_++;
    const std::shared_ptr<const ContentSource> content = content_;
    const PixFormat format = streamFormat_;
    uint8_t* const dst = buf.memory ? buf.memory->data() : buf.mapping->data();
    const size_t capacity = buf.memory ? size_t(minLength_) : buf.mapping->size();

    // The buffer is ours while Filling; render without holding up the client.
    lock.unlock();
    uint32_t flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | V4L2_BUF_FLAG_TSTAMP_SRC_SOE;
    size_t used = 0;
    if (!empty) {
        if (!scripted.empty()) {
            const std::vector<uint8_t>& payload = scripted[frame % scripted.size()];
            used = std::min(payload.size(), capacity);
            std::memcpy(dst, payload.data(), used);
        } else if (content) {
            used = content->render(frame, dst, capacity);
            if (used == 0)
                flags |= V4L2_BUF_FLAG_ERROR;
            else if (content->isKeyFrame(frame))
                flags |= V4L2_BUF_FLAG_KEYFRAME;
        } else {
            // A format without content (RGB24): a flat grey picture.
            used = std::min<size_t>(format.sizeimage, capacity);
            std::memset(dst, 0x80, used);
        }
    }
    const timeval timestamp = monotonicNow();
    lock.lock();

    buf.bytesused = used ? uint32_t(used) + extraBytes : 0;
    buf.flags = flags;
    buf.sequence = sequence;
    buf.timestamp = timestamp;
    buf.state = Buffer::State::Done;
    done_.push_back(index);
    recorder_.frameFilled();
    syncReadinessLocked();
    cv_.notify_all();
}

void StreamQueue::evaluateLocked()
{
    const NodeSnapshot node = node_->snapshot();
    const CameraState& camera = *node_->camera;
    int error = 0;
    gone_ = dead_ || camera.retired.load() || !camera.present(generation_);
    if (gone_)
        error = ENODEV;
    else if (streaming_ && node.faults.dqbufErrno &&
             node.goodDequeues >= uint64_t(node.faults.dqbufAfter))
        error = node.faults.dqbufErrno;
    const bool wasPending = errorPending_;
    errorPending_ = error != 0;
    error_ = error;
    stalled_ = node.faults.stall && node.streamDequeues >= uint64_t(node.faults.stallAfter);
    syncReadinessLocked();
    if (errorPending_ && !wasPending)
        cv_.notify_all();
}

void StreamQueue::syncReadinessLocked()
{
    // Mirrors videobuf2's poll: an error, a stopped queue, a queue never given a buffer, or
    // a filled buffer all make the descriptor readable.
    if (!fdUsable_)
        return;
    const bool ready =
        dead_ || !streaming_ || errorPending_ || waitingForBuffers_ || !done_.empty();
    if (ready == signalled_)
        return;
    // Raw system calls: readiness changes as a driver's would, out of sight of user-space
    // tools that watch descriptor use (ThreadSanitizer would otherwise pair this clock's
    // last signal with the client's close, which joins the clock only after it). Buffer
    // handover is ordered by m_, not by the descriptor.
    uint64_t value = 1;
    const long n = syscall(ready ? SYS_write : SYS_read, eventFd_, &value, sizeof value);
    if (n == long(sizeof value))
        signalled_ = ready;
}

} // namespace simcam
