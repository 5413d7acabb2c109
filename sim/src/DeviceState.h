#pragma once
// Live state of the configured cameras and their nodes, shared by every descriptor open on
// them. Lock order: a stream's lock may be held while taking a node's or a camera's lock;
// a node's and a camera's lock are never held together.

#include "EventQueue.h"
#include "FormatMath.h"
#include "SyncMutex.h"
#include "simcam/Model.h"

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace simcam {

class NodeState;

// The character device major of video4linux nodes.
constexpr unsigned kVideoMajor = 81;

class CameraState {
public:
    CameraState(const Camera& config, int index);
    ~CameraState(); // stopReplugTimer()
    CameraState(const CameraState&) = delete;
    CameraState& operator=(const CameraState&) = delete;

    const Camera config; // `nodes` left empty: the nodes live in NodeState
    const int index;
    const std::string usbPath; // empty for a platform camera
    const std::string busInfo;

    // Set when a newer model replaced this one: every call fails ENODEV from then on.
    std::atomic<bool> retired{false};

    // Generation of the current plug-in; descriptors opened under an older one are dead.
    uint64_t generation() const;
    bool present(uint64_t generation) const;
    bool unplugged() const;

    // With `replugMs` set, the camera re-enumerates by itself that long after the unplug:
    // a timer thread, started at the first unplug, waits for it until stopReplugTimer().
    void unplug();
    // Enumerates anew, as after a USB reset or a replug: present again, a new generation
    // (older descriptors die), and the unplug fault of its nodes forgotten so it does not
    // recur. A return the replug timer had scheduled is cancelled.
    void reenumerate();
    // Joins the replug timer; from now on an unplug schedules no return. Called when the
    // model is retired or destroyed; repeating it does nothing.
    void stopReplugTimer();
    // Replug timer threads started and not yet joined, over every camera (stats()).
    static int replugTimers();

    std::vector<uint8_t> extensionControl(uint8_t selector) const;
    void setExtensionControl(uint8_t selector, std::vector<uint8_t> bytes);

    void attach(const std::shared_ptr<NodeState>& node);

private:
    using Clock = std::chrono::steady_clock;

    void replugLoop();
    // Under m_: present again with a new generation; returns the nodes to tell.
    std::vector<std::weak_ptr<NodeState>> reenumerateLocked();

    mutable SyncMutex m_;
    bool unplugged_ = false;
    uint64_t generation_ = 0;
    std::condition_variable_any replugWake_;
    std::optional<Clock::time_point> replugAt_; // when the unplugged camera comes back
    bool replugStopped_ = false;
    std::thread replugThread_;
    std::map<uint8_t, std::vector<uint8_t>> extension_;
    std::vector<std::weak_ptr<NodeState>> nodes_;
};

// What a frame clock needs to know about the node, read in one go.
struct NodeSnapshot {
    Faults faults;
    uint64_t goodDequeues = 0;   // since the last fault change or re-enumeration
    uint64_t streamDequeues = 0; // the same, and since the last STREAMON (stallAfter)
    PixFormat format;
    Interval timePerFrame;
};

class NodeState {
public:
    NodeState(const Node& config, std::shared_ptr<CameraState> camera, bool unthrottled,
              unsigned minor);

    const Node config; // formats, kind and name never change; live faults are below
    const std::string path;
    const unsigned minor; // of the video4linux character device (major kVideoMajor)
    const std::shared_ptr<CameraState> camera;
    std::atomic<bool> unthrottled;
    EventHub events; // of the descriptors open on the node

    bool isCapture() const { return config.kind == NodeKind::Capture; }

    NodeSnapshot snapshot() const;
    Faults faults() const;
    void setFaults(const Faults& faults); // restarts "after N frames" counting

    // Consumes one S_FMT refusal; returns the errno to refuse with, or 0.
    int takeFormatRefusal();
    // Sets the format nearest to `wanted` unless buffers are allocated; 0 or errno.
    int applyFormat(PixFormat& wanted, bool commit);
    PixFormat format() const;

    Interval timePerFrame() const;
    // Chooses the offered interval nearest to `wanted` for the current size.
    Interval applyTimePerFrame(Interval wanted);
    void forceTimePerFrame(std::optional<Interval> interval);

    // The queue belongs to one descriptor at a time, like a driver's.
    bool claimQueue(const void* owner);
    void releaseQueue(const void* owner);
    bool queueClaimedByOther(const void* owner) const;

    // V4L2 priorities of the descriptors open on the node (VIDIOC_S_PRIORITY): one count
    // per level. An ioctl that changes the device is refused below the highest level held.
    void changePriority(int from, int to);
    int highestPriority() const;

    // V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME: the next coded frame any stream of the node
    // produces starts a new GOP.
    void requestKeyFrame() { keyFrameRequested_ = true; }
    bool takeKeyFrameRequest() { return keyFrameRequested_.exchange(false); }

    void countGoodDequeue();
    // STREAMON: a new stream, whose stallAfter count starts from zero.
    void streamStarted();
    // Counts a produced frame; true when this one is to carry no payload.
    bool nextFrameEmpty();
    // The camera enumerated anew: the unplug fault is spent and the queue of the old
    // device's descriptors is gone with it.
    void reenumerated();

private:
    mutable std::mutex m_;
    Faults faults_;
    uint64_t goodDequeues_ = 0;
    uint64_t streamDequeues_ = 0;
    uint64_t produced_ = 0;
    PixFormat format_;
    Interval timePerFrame_;
    std::optional<Interval> forcedTimePerFrame_;
    const void* queueOwner_ = nullptr;
    std::array<int, 4> priorities_{};
    std::atomic<bool> keyFrameRequested_{false};
};

} // namespace simcam
