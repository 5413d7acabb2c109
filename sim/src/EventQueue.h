#pragma once
// V4L2 events of one descriptor (VIDIOC_SUBSCRIBE_EVENT, DQEVENT) as the V4L2 core keeps
// them: per subscription at most one pending event, a newer one replacing it with the
// change flags of both, and a private eventfd readable while any is pending so that the
// poll interposer can wake for POLLPRI. Control events reach every descriptor of a node
// through its EventHub.

#include "SyncMutex.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <linux/videodev2.h>
#include <mutex>
#include <set>
#include <utility>

namespace simcam {

class EventQueue {
public:
    EventQueue();
    ~EventQueue();
    EventQueue(const EventQueue&) = delete;
    EventQueue& operator=(const EventQueue&) = delete;

    // Adds a subscription; with V4L2_EVENT_SUB_FL_SEND_INITIAL `initial` is queued at once.
    void subscribe(const v4l2_event_subscription& sub, const v4l2_event* initial);
    // Drops the subscription and its pending event (V4L2_EVENT_ALL: every one).
    void unsubscribe(const v4l2_event_subscription& sub);
    bool subscribed(uint32_t type, uint32_t id) const;
    // Queues `event` if subscribed; `fromSelf` (the change came through this descriptor)
    // only with V4L2_EVENT_SUB_FL_ALLOW_FEEDBACK.
    void post(const v4l2_event& event, bool fromSelf);
    // 0, or ENOENT when nothing is pending and `block` is false. A blocking call waits
    // for an event and gives up with ENODEV once `gone()` says the device went away.
    int dequeue(v4l2_event& event, bool block, const std::function<bool()>& gone);
    bool pending() const;
    // Readable while an event is pending.
    int wakeDescriptor() const { return wakeFd_; }
    // Lets a blocked dequeue look at `gone()` again.
    void interrupt();

private:
    using Key = std::pair<uint32_t, uint32_t>; // type, id
    struct Pending {
        Key key;
        v4l2_event event;
    };
    void queueLocked(const v4l2_event& event);
    void syncWakeLocked();

    mutable SyncMutex m_;
    std::condition_variable_any cv_;
    std::set<Key> subscriptions_;
    std::set<Key> feedback_; // subscriptions with V4L2_EVENT_SUB_FL_ALLOW_FEEDBACK
    std::deque<Pending> pending_;
    uint32_t sequence_ = 0;
    uint64_t interrupts_ = 0;
    const int wakeFd_;
    bool signalled_ = false;
};

// The descriptors open on one node, for events that concern all of them.
class EventHub {
public:
    void attach(EventQueue* queue);
    void detach(EventQueue* queue);
    // A control was set through `source`: a value-change event to its subscribers.
    void controlChanged(uint32_t id, uint32_t type, uint32_t flags, const EventQueue* source);

private:
    std::mutex m_;
    std::set<EventQueue*> queues_;
};

// A control event as the control framework fills it, for a control without a value range.
v4l2_event controlEvent(uint32_t id, uint32_t type, uint32_t flags, uint32_t changes);

} // namespace simcam
