#pragma once
// A descriptor open on a simulated video node: answers the V4L2 and UVC ioctls.

#include "DeviceState.h"
#include "EventQueue.h"
#include "Handle.h"
#include "StreamQueue.h"

#include <linux/uvcvideo.h>
#include <linux/videodev2.h>
#include <atomic>
#include <memory>

namespace simcam {

struct ControlInfo;

class VideoHandle final : public Handle {
public:
    VideoHandle(int fd, std::shared_ptr<NodeState> node, bool nonBlocking, Recorder& recorder);
    ~VideoHandle() override;

    const std::string& path() const override { return node_->path; }
    int ioctl(unsigned long request, void* arg) override;
    void shutdown(bool wake) override;
    void poke() override;
    void duplicated() override { stream_.keepOwnDescriptor(); }
    void addGauges(Stats& stats) const override { stream_.addGauges(stats); }
    bool stale() const override { return node_->camera->retired.load(); }
    std::shared_ptr<MmapBuffer> mappable(uint64_t offset, size_t length, int prot, int flags,
                                         int& error) const override;
    std::optional<short> pollEvents(short requested) const override;
    std::optional<dev_t> device() const override;
    int eventDescriptor() const override { return events_.wakeDescriptor(); }
    std::optional<bool> nonBlocking() const override { return nonBlocking_.load(); }
    void setNonBlocking(bool on) override;

private:
    int queryCapabilities(v4l2_capability& cap) const;
    int enumFormat(v4l2_fmtdesc& desc) const;
    int enumFrameSizes(v4l2_frmsizeenum& e) const;
    int enumFrameIntervals(v4l2_frmivalenum& e) const;
    int getFormat(v4l2_format& f) const;
    int setFormat(v4l2_format& f, bool commit);
    int getParm(v4l2_streamparm& p) const;
    int setParm(v4l2_streamparm& p);
    int queryControl(v4l2_queryctrl& q) const;
    int queryExtControl(v4l2_query_ext_ctrl& q) const;
    int getControl(const v4l2_control& c) const;
    int setControl(const v4l2_control& c);
    int extControls(unsigned long request, v4l2_ext_controls& cs);
    const ControlInfo* findControl(uint32_t id) const;
    int extensionQuery(uvc_xu_control_query& q);
    int enumInput(v4l2_input& input) const;
    int subscribeEvent(const v4l2_event_subscription& sub);
    void controlSet(uint32_t id);

    bool keyFrameControl() const;
    int dispatch(unsigned long request, void* arg);
    int setPriority(uint32_t priority);

    std::atomic<int> priority_{V4L2_PRIORITY_DEFAULT};

    const std::shared_ptr<NodeState> node_;
    const uint64_t generation_;
    std::atomic<bool> nonBlocking_;
    EventQueue events_;
    StreamQueue stream_;
};

} // namespace simcam
