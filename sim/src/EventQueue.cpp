#include "EventQueue.h"

#include "RealLibc.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace simcam {

namespace {

timespec monotonicNow()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

} // namespace

v4l2_event controlEvent(uint32_t id, uint32_t type, uint32_t flags, uint32_t changes)
{
    v4l2_event event;
    std::memset(&event, 0, sizeof event);
    event.type = V4L2_EVENT_CTRL;
    event.id = id;
    event.u.ctrl.changes = changes;
    event.u.ctrl.type = type;
    event.u.ctrl.flags = flags;
    return event;
}

EventQueue::EventQueue() : wakeFd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

EventQueue::~EventQueue()
{
    if (wakeFd_ >= 0)
        real::closeFd(wakeFd_);
}

void EventQueue::subscribe(const v4l2_event_subscription& sub, const v4l2_event* initial)
{
    std::lock_guard lock(m_);
    const Key key{sub.type, sub.id};
    if (!subscriptions_.insert(key).second)
        return; // already listening, as the core answers
    if (sub.flags & V4L2_EVENT_SUB_FL_ALLOW_FEEDBACK)
        feedback_.insert(key);
    if (initial && (sub.flags & V4L2_EVENT_SUB_FL_SEND_INITIAL))
        queueLocked(*initial);
}

void EventQueue::unsubscribe(const v4l2_event_subscription& sub)
{
    std::lock_guard lock(m_);
    auto matches = [&](const Key& key) {
        return sub.type == V4L2_EVENT_ALL || key == Key{sub.type, sub.id};
    };
    for (auto* keys : {&subscriptions_, &feedback_})
        for (auto it = keys->begin(); it != keys->end();)
            it = matches(*it) ? keys->erase(it) : std::next(it);
    pending_.erase(std::remove_if(pending_.begin(), pending_.end(),
                                  [&](const Pending& p) { return matches(p.key); }),
                   pending_.end());
    syncWakeLocked();
}

bool EventQueue::subscribed(uint32_t type, uint32_t id) const
{
    std::lock_guard lock(m_);
    return subscriptions_.count({type, id}) > 0;
}

void EventQueue::post(const v4l2_event& event, bool fromSelf)
{
    std::lock_guard lock(m_);
    const Key key{event.type, event.id};
    if (!subscriptions_.count(key) || (fromSelf && !feedback_.count(key)))
        return;
    queueLocked(event);
}

void EventQueue::queueLocked(const v4l2_event& event)
{
    const Key key{event.type, event.id};
    v4l2_event queued = event;
    // One event per subscription: a newer one replaces it, keeping what changed in both.
    auto old = std::find_if(pending_.begin(), pending_.end(),
                            [&](const Pending& p) { return p.key == key; });
    if (old != pending_.end()) {
        if (event.type == V4L2_EVENT_CTRL)
            queued.u.ctrl.changes |= old->event.u.ctrl.changes;
        pending_.erase(old);
    }
    queued.sequence = sequence_++;
    queued.timestamp = monotonicNow();
    pending_.push_back({key, queued});
    syncWakeLocked();
    cv_.notify_all();
}

int EventQueue::dequeue(v4l2_event& event, bool block, const std::function<bool()>& gone)
{
    std::unique_lock lock(m_);
    while (pending_.empty()) {
        if (!block)
            return ENOENT;
        const uint64_t seen = interrupts_;
        cv_.wait_for(lock, std::chrono::milliseconds(50),
                     [&] { return !pending_.empty() || interrupts_ != seen; });
        if (!pending_.empty())
            break;
        // Asked without the lock: the camera's own lock is taken before this one elsewhere.
        lock.unlock();
        if (gone())
            return ENODEV;
        lock.lock();
    }
    event = pending_.front().event;
    pending_.pop_front();
    event.pending = uint32_t(pending_.size());
    syncWakeLocked();
    return 0;
}

bool EventQueue::pending() const
{
    std::lock_guard lock(m_);
    return !pending_.empty();
}

void EventQueue::interrupt()
{
    std::lock_guard lock(m_);
    ++interrupts_;
    cv_.notify_all();
}

void EventQueue::syncWakeLocked()
{
    const bool ready = !pending_.empty();
    if (wakeFd_ < 0 || ready == signalled_)
        return;
    // Raw system calls, as the stream's readiness: ordering is by m_, not the descriptor.
    uint64_t value = 1;
    const long n = syscall(ready ? SYS_write : SYS_read, wakeFd_, &value, sizeof value);
    if (n == long(sizeof value))
        signalled_ = ready;
}

void EventHub::attach(EventQueue* queue)
{
    std::lock_guard lock(m_);
    queues_.insert(queue);
}

void EventHub::detach(EventQueue* queue)
{
    std::lock_guard lock(m_);
    queues_.erase(queue);
}

void EventHub::controlChanged(uint32_t id, uint32_t type, uint32_t flags,
                              const EventQueue* source)
{
    const v4l2_event event = controlEvent(id, type, flags, V4L2_EVENT_CTRL_CH_VALUE);
    std::lock_guard lock(m_);
    for (EventQueue* queue : queues_)
        queue->post(event, queue == source);
}

} // namespace simcam
