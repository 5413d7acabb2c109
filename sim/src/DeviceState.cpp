#include "DeviceState.h"

#include <cerrno>

namespace simcam {

namespace {

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

void CameraState::unplug()
{
    std::lock_guard lock(m_);
    unplugged_ = true;
}

void CameraState::reenumerate()
{
    std::vector<std::weak_ptr<NodeState>> nodes;
    {
        std::lock_guard lock(m_);
        unplugged_ = false;
        ++generation_;
        nodes = nodes_;
    }
    for (const auto& weak : nodes)
        if (auto node = weak.lock())
            node->reenumerated();
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

NodeState::NodeState(const Node& config_, std::shared_ptr<CameraState> camera_, bool unthrottled_)
    : config(config_), path("/dev/" + config_.name), camera(std::move(camera_)),
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
    return {faults_, goodDequeues_, format_, forcedTimePerFrame_.value_or(timePerFrame_)};
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

bool NodeState::queueClaimedByOther(const void* owner) const
{
    std::lock_guard lock(m_);
    return queueOwner_ && queueOwner_ != owner;
}

void NodeState::countGoodDequeue()
{
    std::lock_guard lock(m_);
    ++goodDequeues_;
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
}

} // namespace simcam
