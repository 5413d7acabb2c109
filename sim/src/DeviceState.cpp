#include "DeviceState.h"

#include <pthread.h>

#include <cerrno>
#include <linux/videodev2.h>
#include <cstdio>
#include <system_error>

namespace simcam {

namespace {

std::atomic<int> g_replugTimers{0};

Camera withoutNodes(Camera c)
{
    c.nodes.clear();
    return c;
}

std::string busInfoFor(const Camera& c, int index)
{
    if (c.attachment == Attachment::Platform)
        return "platform:simcam-camera." + std::to_string(index);
    return "usb-0000:00:14.0-" + std::to_string(index + 1);
}

} // namespace

CameraState::CameraState(const Camera& config_, int index_)
    : config(withoutNodes(config_)), index(index_), usbPath(usbDevicePath(config_)),
      busInfo(busInfoFor(config_, index_))
{
}

uint64_t CameraState::generation() const
{
    std::lock_guard lock(m_);
    return generation_;
}

bool CameraState::present(uint64_t generation) const
{
    std::lock_guard lock(m_);
    return !unplugged_ && generation == generation_;
}

bool CameraState::unplugged() const
{
    std::lock_guard lock(m_);
    return unplugged_;
}

CameraState::~CameraState()
{
    stopReplugTimer();
}

int CameraState::replugTimers()
{
    return g_replugTimers.load();
}

void CameraState::unplug()
{
    std::lock_guard lock(m_);
    if (unplugged_)
        return; // gone already; a scheduled return keeps its time
    unplugged_ = true;
    if (config.replugMs < 0 || replugStopped_)
        return;
    replugAt_ = Clock::now() + std::chrono::milliseconds(config.replugMs);
    if (!replugThread_.joinable()) {
        try {
            replugThread_ = std::thread(&CameraState::replugLoop, this);
            g_replugTimers.fetch_add(1);
        } catch (const std::system_error& e) {
            std::fprintf(stderr, "simcam: no replug timer (%s): the camera stays unplugged\n", e.what());
            replugAt_.reset();
        }
    }
    replugWake_.notify_all();
}

std::vector<std::weak_ptr<NodeState>> CameraState::reenumerateLocked()
{
    unplugged_ = false;
    ++generation_;
    replugAt_.reset();
    return nodes_;
}

void CameraState::reenumerate()
{
    std::vector<std::weak_ptr<NodeState>> nodes;
    {
        std::lock_guard lock(m_);
        nodes = reenumerateLocked();
    }
    for (const auto& weak : nodes)
        if (auto node = weak.lock())
            node->reenumerated();
}

void CameraState::replugLoop()
{
    pthread_setname_np(pthread_self(), "simcam-replug");
    std::unique_lock lock(m_);
    while (!replugStopped_) {
        if (!replugAt_) {
            replugWake_.wait(lock);
            continue;
        }
        if (Clock::now() < *replugAt_) {
            replugWake_.wait_until(lock, *replugAt_);
            continue; // stopped, cancelled by a reset, or time: look again
        }
        // The deadline and the re-enumeration under one lock: a reset in between cannot
        // make it happen twice (which would kill descriptors opened after the first).
        const std::vector<std::weak_ptr<NodeState>> nodes = reenumerateLocked();
        lock.unlock();
        // The model is only destroyed after this thread was joined, so it holds the nodes:
        // none of them is released last here.
        for (const auto& weak : nodes)
            if (auto node = weak.lock())
                node->reenumerated();
        lock.lock();
    }
}

void CameraState::stopReplugTimer()
{
    std::thread timer;
    {
        std::lock_guard lock(m_);
        replugStopped_ = true;
        replugAt_.reset();
        timer = std::move(replugThread_);
    }
    replugWake_.notify_all();
    if (timer.joinable()) {
        timer.join();
        g_replugTimers.fetch_sub(1);
    }
}

std::vector<uint8_t> CameraState::extensionControl(uint8_t selector) const
{
    std::lock_guard lock(m_);
    auto it = extension_.find(selector);
    return it == extension_.end() ? std::vector<uint8_t>{} : it->second;
}

void CameraState::setExtensionControl(uint8_t selector, std::vector<uint8_t> bytes)
{
    std::lock_guard lock(m_);
    extension_[selector] = std::move(bytes);
}

void CameraState::attach(const std::shared_ptr<NodeState>& node)
{
    std::lock_guard lock(m_);
    nodes_.push_back(node);
}

NodeState::NodeState(const Node& config_, std::shared_ptr<CameraState> camera_, bool unthrottled_,
                     unsigned minor_)
    : config(config_), path("/dev/" + config_.name), minor(minor_), camera(std::move(camera_)),
      unthrottled(unthrottled_), faults_(config_.faults)
{
    if (!config.formats.empty()) {
        const Format& first = config.formats.front();
        uint32_t w = 0, h = 0;
        defaultSize(first, w, h);
        format_ = layoutFor(first.fourcc, w, h, config.content);
        if (const auto* intervals = intervalsAt(first, w, h))
            timePerFrame_ = nearestInterval(*intervals, {});
    }
}

NodeSnapshot NodeState::snapshot() const
{
    std::lock_guard lock(m_);
    return {faults_, goodDequeues_, streamDequeues_, format_,
            forcedTimePerFrame_.value_or(timePerFrame_)};
}

Faults NodeState::faults() const
{
    std::lock_guard lock(m_);
    return faults_;
}

void NodeState::setFaults(const Faults& faults)
{
    std::lock_guard lock(m_);
    faults_ = faults;
    goodDequeues_ = 0;
    streamDequeues_ = 0;
    produced_ = 0;
}

int NodeState::takeFormatRefusal()
{
    std::lock_guard lock(m_);
    if (faults_.sfmtErrno == 0 || faults_.sfmtCount == 0)
        return 0;
    int err = faults_.sfmtErrno;
    if (faults_.sfmtCount > 0 && --faults_.sfmtCount == 0)
        faults_.sfmtErrno = 0;
    return err;
}

int NodeState::applyFormat(PixFormat& wanted, bool commit)
{
    if (config.formats.empty())
        return EINVAL;
    // An unknown format falls back to the first one, as the UVC driver does.
    const Format* format = findFormat(config, wanted.fourcc);
    if (!format)
        format = &config.formats.front();
    uint32_t w = wanted.width, h = wanted.height;
    nearestSize(*format, w, h);
    wanted = layoutFor(format->fourcc, w, h, config.content);
    if (!commit)
        return 0;

    std::lock_guard lock(m_);
    if (queueOwner_)
        return EBUSY;
    format_ = wanted;
    const auto* intervals = intervalsAt(*format, w, h);
    timePerFrame_ = intervals ? nearestInterval(*intervals, {}) : Interval{};
    return 0;
}

PixFormat NodeState::format() const
{
    std::lock_guard lock(m_);
    return format_;
}

Interval NodeState::timePerFrame() const
{
    std::lock_guard lock(m_);
    return forcedTimePerFrame_.value_or(timePerFrame_);
}

Interval NodeState::applyTimePerFrame(Interval wanted)
{
    std::lock_guard lock(m_);
    if (const Format* f = findFormat(config, format_.fourcc))
        if (const auto* intervals = intervalsAt(*f, format_.width, format_.height))
            timePerFrame_ = f->intervalRange ? nearestInterval(*f->intervalRange, wanted)
                                             : nearestInterval(*intervals, wanted);
    return forcedTimePerFrame_.value_or(timePerFrame_);
}

void NodeState::forceTimePerFrame(std::optional<Interval> interval)
{
    std::lock_guard lock(m_);
    forcedTimePerFrame_ = interval;
}

bool NodeState::claimQueue(const void* owner)
{
    std::lock_guard lock(m_);
    if (queueOwner_ && queueOwner_ != owner)
        return false;
    queueOwner_ = owner;
    return true;
}

void NodeState::releaseQueue(const void* owner)
{
    std::lock_guard lock(m_);
    if (queueOwner_ == owner)
        queueOwner_ = nullptr;
}

void NodeState::changePriority(int from, int to)
{
    std::lock_guard lock(m_);
    if (from >= 0)
        --priorities_[size_t(from)];
    if (to >= 0)
        ++priorities_[size_t(to)];
}

int NodeState::highestPriority() const
{
    std::lock_guard lock(m_);
    for (int p = int(priorities_.size()) - 1; p > 0; --p)
        if (priorities_[size_t(p)] > 0)
            return p;
    return V4L2_PRIORITY_DEFAULT;
}

bool NodeState::queueClaimedByOther(const void* owner) const
{
    std::lock_guard lock(m_);
    return queueOwner_ && queueOwner_ != owner;
}

void NodeState::countGoodDequeue()
{
    std::lock_guard lock(m_);
    ++goodDequeues_;
    ++streamDequeues_;
}

void NodeState::streamStarted()
{
    std::lock_guard lock(m_);
    streamDequeues_ = 0;
}

bool NodeState::nextFrameEmpty()
{
    std::lock_guard lock(m_);
    ++produced_;
    return faults_.emptyEvery > 0 && produced_ % uint64_t(faults_.emptyEvery) == 0;
}

void NodeState::reenumerated()
{
    std::lock_guard lock(m_);
    queueOwner_ = nullptr;
    if (faults_.dqbufErrno == ENODEV) {
        faults_.dqbufErrno = 0;
        faults_.dqbufAfter = 0;
    }
    goodDequeues_ = 0;
    streamDequeues_ = 0;
}

} // namespace simcam
