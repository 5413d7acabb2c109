#include "Recorder.h"

namespace simcam {

void Recorder::open(const std::string& path, int flags, int result, int error)
{
    std::lock_guard lock(m_);
    counts_.opens.push_back({path, flags, result, error});
    changed();
}

void Recorder::ioctl(const std::string& path, unsigned long request, int result, int error)
{
    std::lock_guard lock(m_);
    ++counts_.ioctlCounts[request];
    ioctls_.push_back({path, request, result, error});
    if (ioctls_.size() > kIoctlLogLimit)
        ioctls_.pop_front();
    changed();
}

void Recorder::reset(const std::string& path)
{
    std::lock_guard lock(m_);
    ++counts_.resets[path];
    changed();
}

void Recorder::frameFilled()
{
    std::lock_guard lock(m_);
    ++counts_.framesFilled;
    if (counts_.readyTimes.size() >= kReadyLogLimit)
        counts_.readyTimes.erase(counts_.readyTimes.begin(), counts_.readyTimes.begin() + kReadyLogLimit / 2);
    counts_.readyTimes.push_back(std::chrono::steady_clock::now());
    changed();
}

void Recorder::frameDelivered()
{
    std::lock_guard lock(m_);
    ++counts_.framesDelivered;
    changed();
}

void Recorder::frameDropped()
{
    std::lock_guard lock(m_);
    ++counts_.framesDropped;
    changed();
}

Stats Recorder::counters() const
{
    std::lock_guard lock(m_);
    Stats s = counts_;
    s.ioctls.reserve(ioctls_.size());
    ioctls_.forEach([&s](const IoctlRecord& r) { s.ioctls.push_back(r); });
    return s;
}

void Recorder::clear()
{
    std::lock_guard lock(m_);
    counts_ = Stats{};
    ioctls_.clear();
    changed();
}

void Recorder::waitForChange(std::chrono::steady_clock::time_point deadline) const
{
    std::unique_lock lock(m_);
    const uint64_t seen = version_;
    cv_.wait_until(lock, deadline, [&] { return version_ != seen; });
}

void Recorder::changed()
{
    ++version_;
    cv_.notify_all();
}

} // namespace simcam
