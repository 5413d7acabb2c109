#include "VideoHandle.h"

#include "HandleFactory.h"

#include <cerrno>
#include <cstring>
#include <linux/usb/video.h>
#include <linux/version.h>
#include <poll.h>
#include <sys/sysmacros.h>

namespace simcam {

namespace {

template <size_t N>
void copyText(__u8 (&dst)[N], const std::string& text)
{
    std::memset(dst, 0, N);
    std::memcpy(dst, text.data(), std::min(text.size(), N - 1));
}

template <size_t N>
void copyText(char (&dst)[N], const std::string& text)
{
    std::memset(dst, 0, N);
    std::memcpy(dst, text.data(), std::min(text.size(), N - 1));
}

void fillPix(v4l2_pix_format& pix, const PixFormat& p)
{
    pix.width = p.width;
    pix.height = p.height;
    pix.pixelformat = p.fourcc;
    pix.field = V4L2_FIELD_NONE;
    pix.bytesperline = p.bytesperline;
    pix.sizeimage = p.sizeimage;
    pix.colorspace = V4L2_COLORSPACE_SRGB;
    pix.priv = 0;
    pix.flags = 0;
    pix.ycbcr_enc = V4L2_YCBCR_ENC_DEFAULT;
    pix.quantization = V4L2_QUANTIZATION_DEFAULT;
    pix.xfer_func = V4L2_XFER_FUNC_DEFAULT;
}

template <typename T>
T& as(void* arg)
{
    return *static_cast<T*>(arg);
}

} // namespace

std::shared_ptr<Handle> makeVideoHandle(int fd, std::shared_ptr<NodeState> node, bool nonBlocking,
                                        Recorder& recorder)
{
    return std::make_shared<VideoHandle>(fd, std::move(node), nonBlocking, recorder);
}

VideoHandle::VideoHandle(int fd, std::shared_ptr<NodeState> node, bool nonBlocking,
                         Recorder& recorder)
    : node_(std::move(node)), generation_(node_->camera->generation()),
      nonBlocking_(nonBlocking), stream_(fd, node_, generation_, recorder, nonBlocking)
{
    node_->changePriority(-1, V4L2_PRIORITY_DEFAULT);
    node_->events.attach(&events_);
}

VideoHandle::~VideoHandle()
{
    node_->events.detach(&events_);
    node_->changePriority(priority_.load(), -1);
}

void VideoHandle::shutdown(bool wake)
{
    stream_.shutdown(wake);
    events_.interrupt();
}

void VideoHandle::setNonBlocking(bool on)
{
    nonBlocking_ = on;
    stream_.setNonBlocking(on);
}

void VideoHandle::poke()
{
    stream_.poke();
    events_.interrupt();
}

namespace {

// What the V4L2 core refuses with EBUSY to a descriptor below the highest priority.
bool changesTheDevice(unsigned long request)
{
    switch (request) {
    case VIDIOC_S_FMT:
    case VIDIOC_S_PARM:
    case VIDIOC_S_INPUT:
    case VIDIOC_S_CTRL:
    case VIDIOC_S_EXT_CTRLS:
    case VIDIOC_S_PRIORITY:
    case VIDIOC_REQBUFS:
    case VIDIOC_STREAMON:
    case VIDIOC_STREAMOFF:
        return true;
    default:
        return false;
    }
}

// The ioctls dispatch() answers; the others fail ENOTTY whatever their argument.
bool knownRequest(unsigned long request)
{
    switch (request) {
    case VIDIOC_QUERYCAP: case VIDIOC_ENUM_FMT: case VIDIOC_ENUM_FRAMESIZES:
    case VIDIOC_ENUM_FRAMEINTERVALS: case VIDIOC_G_FMT: case VIDIOC_S_FMT: case VIDIOC_TRY_FMT:
    case VIDIOC_G_PARM: case VIDIOC_S_PARM: case VIDIOC_REQBUFS: case VIDIOC_QUERYBUF:
    case VIDIOC_QBUF: case VIDIOC_DQBUF: case VIDIOC_EXPBUF: case VIDIOC_STREAMON:
    case VIDIOC_STREAMOFF: case VIDIOC_QUERYCTRL: case VIDIOC_S_CTRL: case VIDIOC_G_CTRL:
    case VIDIOC_QUERY_EXT_CTRL: case VIDIOC_G_EXT_CTRLS: case VIDIOC_S_EXT_CTRLS:
    case VIDIOC_TRY_EXT_CTRLS:
    case UVCIOC_CTRL_QUERY: case VIDIOC_ENUMINPUT: case VIDIOC_G_INPUT: case VIDIOC_S_INPUT:
    case VIDIOC_G_PRIORITY: case VIDIOC_S_PRIORITY: case VIDIOC_SUBSCRIBE_EVENT:
    case VIDIOC_UNSUBSCRIBE_EVENT: case VIDIOC_DQEVENT:
        return true;
    default:
        return false;
    }
}

} // namespace

int VideoHandle::setPriority(uint32_t priority)
{
    if (priority > V4L2_PRIORITY_RECORD)
        return EINVAL;
    if (priority == V4L2_PRIORITY_UNSET)
        priority = V4L2_PRIORITY_DEFAULT;
    node_->changePriority(priority_.exchange(int(priority)), int(priority));
    return 0;
}

int VideoHandle::ioctl(unsigned long request, void* arg)
{
    const CameraState& camera = *node_->camera;
    if (camera.retired.load() || !camera.present(generation_))
        return ENODEV;
    if (changesTheDevice(request) && priority_.load() < node_->highestPriority())
        return EBUSY;
    if (!arg)
        return knownRequest(request) ? EFAULT : ENOTTY;
    return dispatch(request, arg);
}

int VideoHandle::dispatch(unsigned long request, void* arg)
{
    if (request == VIDIOC_QUERYCAP)
        return queryCapabilities(as<v4l2_capability>(arg));
    if (!node_->isCapture()) {
        // A metadata node has no capture formats, queue or controls.
        switch (request) {
        case VIDIOC_ENUM_FMT:
        case VIDIOC_G_FMT:
        case VIDIOC_S_FMT:
        case VIDIOC_TRY_FMT:
        case VIDIOC_REQBUFS:
        case VIDIOC_QUERYBUF:
        case VIDIOC_QBUF:
        case VIDIOC_DQBUF:
        case VIDIOC_STREAMON:
        case VIDIOC_STREAMOFF:
        case VIDIOC_ENUM_FRAMESIZES:
        case VIDIOC_ENUM_FRAMEINTERVALS:
            return EINVAL;
        default:
            return ENOTTY;
        }
    }
    switch (request) {
    case VIDIOC_ENUM_FMT: return enumFormat(as<v4l2_fmtdesc>(arg));
    case VIDIOC_ENUM_FRAMESIZES: return enumFrameSizes(as<v4l2_frmsizeenum>(arg));
    case VIDIOC_ENUM_FRAMEINTERVALS: return enumFrameIntervals(as<v4l2_frmivalenum>(arg));
    case VIDIOC_G_FMT: return getFormat(as<v4l2_format>(arg));
    case VIDIOC_S_FMT: return setFormat(as<v4l2_format>(arg), true);
    case VIDIOC_TRY_FMT: return setFormat(as<v4l2_format>(arg), false);
    case VIDIOC_G_PARM: return getParm(as<v4l2_streamparm>(arg));
    case VIDIOC_S_PARM: return setParm(as<v4l2_streamparm>(arg));
    case VIDIOC_REQBUFS: return stream_.requestBuffers(as<v4l2_requestbuffers>(arg));
    case VIDIOC_QUERYBUF: return stream_.queryBuffer(as<v4l2_buffer>(arg));
    case VIDIOC_QBUF: return stream_.queueBuffer(as<v4l2_buffer>(arg));
    case VIDIOC_DQBUF: return stream_.dequeueBuffer(as<v4l2_buffer>(arg));
    case VIDIOC_EXPBUF: return stream_.exportBuffer(as<v4l2_exportbuffer>(arg));
    case VIDIOC_STREAMON:
    case VIDIOC_STREAMOFF: {
        if (as<int>(arg) != V4L2_BUF_TYPE_VIDEO_CAPTURE)
            return EINVAL;
        return request == VIDIOC_STREAMON ? stream_.streamOn() : stream_.streamOff();
    }
    case VIDIOC_QUERYCTRL: return queryControl(as<v4l2_queryctrl>(arg));
    case VIDIOC_QUERY_EXT_CTRL: return queryExtControl(as<v4l2_query_ext_ctrl>(arg));
    case VIDIOC_S_CTRL: return setControl(as<v4l2_control>(arg));
    case VIDIOC_G_CTRL: return getControl(as<v4l2_control>(arg));
    case VIDIOC_G_EXT_CTRLS:
    case VIDIOC_S_EXT_CTRLS:
    case VIDIOC_TRY_EXT_CTRLS: return extControls(request, as<v4l2_ext_controls>(arg));
    case UVCIOC_CTRL_QUERY: return extensionQuery(as<uvc_xu_control_query>(arg));
    case VIDIOC_ENUMINPUT: return enumInput(as<v4l2_input>(arg));
    case VIDIOC_G_INPUT: as<int>(arg) = 0; return 0;
    case VIDIOC_S_INPUT: return as<int>(arg) == 0 ? 0 : EINVAL;
    case VIDIOC_G_PRIORITY: as<uint32_t>(arg) = uint32_t(node_->highestPriority()); return 0;
    case VIDIOC_S_PRIORITY: return setPriority(as<uint32_t>(arg));
    case VIDIOC_SUBSCRIBE_EVENT: return subscribeEvent(as<v4l2_event_subscription>(arg));
    case VIDIOC_UNSUBSCRIBE_EVENT:
        events_.unsubscribe(as<v4l2_event_subscription>(arg));
        return 0;
    case VIDIOC_DQEVENT: {
        const CameraState& camera = *node_->camera;
        return events_.dequeue(as<v4l2_event>(arg), !nonBlocking_, [&] {
            return camera.retired.load() || !camera.present(generation_);
        });
    }
    default: return ENOTTY;
    }
}

std::shared_ptr<MmapBuffer> VideoHandle::mappable(uint64_t offset, size_t length, int prot,
                                                  int flags, int& error) const
{
    const CameraState& camera = *node_->camera;
    if (camera.retired.load() || !camera.present(generation_)) {
        error = ENODEV;
        return nullptr;
    }
    return stream_.bufferAt(offset, length, prot, flags, error);
}

std::optional<dev_t> VideoHandle::device() const
{
    return makedev(kVideoMajor, node_->minor);
}

std::optional<short> VideoHandle::pollEvents(short requested) const
{
    const CameraState& camera = *node_->camera;
    if (camera.retired.load() || !camera.present(generation_))
        return short(POLLERR);
    // Asked for events only (select's exception set), videobuf2 leaves the queue out.
    const bool queueAsked = (requested & (POLLIN | POLLRDNORM)) || !(requested & POLLPRI);
    short events = queueAsked ? stream_.pollEvents(requested) : short(0);
    if (events_.pending())
        events |= POLLPRI;
    return events;
}

int VideoHandle::queryCapabilities(v4l2_capability& cap) const
{
    const Faults faults = node_->faults();
    if (faults.querycapErrno)
        return faults.querycapErrno;
    std::memset(&cap, 0, sizeof cap);
    copyText(cap.driver, "uvcvideo");
    copyText(cap.card, node_->camera->config.card);
    copyText(cap.bus_info, node_->camera->busInfo);
    cap.version = KERNEL_VERSION(6, 1, 0);
    uint32_t caps = V4L2_CAP_STREAMING | V4L2_CAP_EXT_PIX_FORMAT;
    if (!node_->isCapture())
        caps |= V4L2_CAP_META_CAPTURE;
    else if (!faults.noCaptureCap)
        caps |= V4L2_CAP_VIDEO_CAPTURE;
    cap.device_caps = caps;
    cap.capabilities = caps | V4L2_CAP_DEVICE_CAPS;
    return 0;
}

int VideoHandle::enumFormat(v4l2_fmtdesc& desc) const
{
    const auto& formats = node_->config.formats;
    if (desc.type != V4L2_BUF_TYPE_VIDEO_CAPTURE || desc.index >= formats.size())
        return EINVAL;
    const Format& f = formats[desc.index];
    const uint32_t index = desc.index;
    const uint32_t type = desc.type;
    std::memset(&desc, 0, sizeof desc);
    desc.index = index;
    desc.type = type;
    desc.flags = isCoded(f.fourcc) ? V4L2_FMT_FLAG_COMPRESSED : 0;
    copyText(desc.description, f.description.empty() ? formatDescription(f.fourcc) : f.description);
    desc.pixelformat = f.fourcc;
    return 0;
}

int VideoHandle::enumFrameSizes(v4l2_frmsizeenum& e) const
{
    const Format* f = findFormat(node_->config, e.pixel_format);
    if (!f)
        return EINVAL;
    if (f->stepwise) {
        if (e.index != 0)
            return EINVAL;
        const bool continuous = f->stepwise->stepWidth == 1 && f->stepwise->stepHeight == 1;
        e.type = continuous ? V4L2_FRMSIZE_TYPE_CONTINUOUS : V4L2_FRMSIZE_TYPE_STEPWISE;
        e.stepwise = {f->stepwise->minWidth,  f->stepwise->maxWidth,  f->stepwise->stepWidth,
                      f->stepwise->minHeight, f->stepwise->maxHeight, f->stepwise->stepHeight};
        std::memset(e.reserved, 0, sizeof e.reserved);
        return 0;
    }
    if (e.index >= f->sizes.size())
        return EINVAL;
    e.type = V4L2_FRMSIZE_TYPE_DISCRETE;
    e.discrete = {f->sizes[e.index].width, f->sizes[e.index].height};
    std::memset(e.reserved, 0, sizeof e.reserved);
    return 0;
}

int VideoHandle::enumFrameIntervals(v4l2_frmivalenum& e) const
{
    const Format* f = findFormat(node_->config, e.pixel_format);
    if (!f)
        return EINVAL;
    const auto* intervals = intervalsAt(*f, e.width, e.height);
    if (intervals && f->intervalRange) {
        if (e.index != 0)
            return EINVAL;
        const IntervalRange& r = *f->intervalRange;
        const bool continuous = r.step.numerator == 1 && r.step.denominator == 1;
        e.type = continuous ? V4L2_FRMIVAL_TYPE_CONTINUOUS : V4L2_FRMIVAL_TYPE_STEPWISE;
        e.stepwise = {{r.min.numerator, r.min.denominator}, {r.max.numerator, r.max.denominator},
                      {r.step.numerator, r.step.denominator}};
        std::memset(e.reserved, 0, sizeof e.reserved);
        return 0;
    }
    if (!intervals || e.index >= intervals->size())
        return EINVAL;
    e.type = V4L2_FRMIVAL_TYPE_DISCRETE;
    e.discrete = {(*intervals)[e.index].numerator, (*intervals)[e.index].denominator};
    std::memset(e.reserved, 0, sizeof e.reserved);
    return 0;
}

int VideoHandle::getFormat(v4l2_format& f) const
{
    if (f.type != V4L2_BUF_TYPE_VIDEO_CAPTURE)
        return EINVAL;
    fillPix(f.fmt.pix, node_->format());
    return 0;
}

int VideoHandle::setFormat(v4l2_format& f, bool commit)
{
    if (f.type != V4L2_BUF_TYPE_VIDEO_CAPTURE)
        return EINVAL;
    if (commit) {
        if (node_->faults().busy)
            return EBUSY;
        if (int refusal = node_->takeFormatRefusal())
            return refusal;
    }
    PixFormat wanted{f.fmt.pix.pixelformat, f.fmt.pix.width, f.fmt.pix.height, 0, 0};
    if (int error = node_->applyFormat(wanted, commit))
        return error;
    fillPix(f.fmt.pix, wanted);
    return 0;
}

int VideoHandle::getParm(v4l2_streamparm& p) const
{
    if (p.type != V4L2_BUF_TYPE_VIDEO_CAPTURE)
        return EINVAL;
    if (int error = node_->faults().parmErrno)
        return error;
    const Interval i = node_->timePerFrame();
    std::memset(&p.parm, 0, sizeof p.parm);
    p.parm.capture.capability = V4L2_CAP_TIMEPERFRAME;
    p.parm.capture.timeperframe = {i.numerator, i.denominator};
    return 0;
}

int VideoHandle::setParm(v4l2_streamparm& p)
{
    if (p.type != V4L2_BUF_TYPE_VIDEO_CAPTURE)
        return EINVAL;
    if (int error = node_->faults().parmErrno)
        return error;
    const v4l2_fract want = p.parm.capture.timeperframe;
    const Interval i = node_->applyTimePerFrame({want.numerator, want.denominator});
    stream_.poke(); // a running clock picks up the new rate
    std::memset(&p.parm, 0, sizeof p.parm);
    p.parm.capture.capability = V4L2_CAP_TIMEPERFRAME;
    p.parm.capture.timeperframe = {i.numerator, i.denominator};
    return 0;
}

bool VideoHandle::keyFrameControl() const
{
    return !node_->faults().noKeyFrameControl;
}

struct ControlInfo {
    uint32_t id;
    uint32_t type;
    const char* name;
    uint32_t flags;
};

namespace {

// The codec class control comes with the class's only member, as the control framework
// adds it.
constexpr ControlInfo kControls[] = {
    {V4L2_CID_MPEG_CLASS, V4L2_CTRL_TYPE_CTRL_CLASS, "Codec Controls",
     V4L2_CTRL_FLAG_READ_ONLY | V4L2_CTRL_FLAG_WRITE_ONLY},
    {V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME, V4L2_CTRL_TYPE_BUTTON, "Force Key Frame",
     V4L2_CTRL_FLAG_WRITE_ONLY | V4L2_CTRL_FLAG_EXECUTE_ON_WRITE},
};

} // namespace

const ControlInfo* VideoHandle::findControl(uint32_t id) const
{
    const uint32_t bare = id & ~(V4L2_CTRL_FLAG_NEXT_CTRL | V4L2_CTRL_FLAG_NEXT_COMPOUND);
    const bool next = id & V4L2_CTRL_FLAG_NEXT_CTRL;
    if (!keyFrameControl())
        return nullptr;
    for (const ControlInfo& c : kControls)
        if (next ? c.id > bare : c.id == bare)
            return &c;
    return nullptr;
}

namespace {

// What both control queries answer alike; the rest of the structure is zero.
template <class Query>
void describeControl(Query& q, const ControlInfo& c)
{
    std::memset(&q, 0, sizeof q);
    q.id = c.id;
    q.type = c.type;
    copyText(q.name, c.name);
    q.flags = c.flags;
}

} // namespace

int VideoHandle::queryControl(v4l2_queryctrl& q) const
{
    const ControlInfo* c = findControl(q.id);
    if (!c)
        return EINVAL;
    describeControl(q, *c);
    return 0;
}

int VideoHandle::queryExtControl(v4l2_query_ext_ctrl& q) const
{
    const ControlInfo* c = findControl(q.id);
    if (!c)
        return EINVAL;
    describeControl(q, *c);
    q.elem_size = sizeof(int32_t);
    q.elems = 1;
    return 0;
}

int VideoHandle::getControl(const v4l2_control& c) const
{
    const ControlInfo* info = findControl(c.id);
    return !info || (c.id & V4L2_CTRL_FLAG_NEXT_CTRL) ? EINVAL : EACCES; // none is readable
}

int VideoHandle::setControl(const v4l2_control& c)
{
    const ControlInfo* info = findControl(c.id);
    if (!info || (c.id & V4L2_CTRL_FLAG_NEXT_CTRL))
        return EINVAL;
    if (info->flags & V4L2_CTRL_FLAG_READ_ONLY)
        return EACCES;
    controlSet(info->id);
    return 0;
}

int VideoHandle::extControls(unsigned long request, v4l2_ext_controls& cs)
{
    const uint32_t which = cs.which;
    if (which != V4L2_CTRL_WHICH_CUR_VAL && which != V4L2_CTRL_WHICH_DEF_VAL &&
        !(findControl(which | 1) && which == V4L2_CTRL_CLASS_MPEG))
        return EINVAL;
    if (cs.count == 0)
        return 0;
    if (!cs.controls)
        return EFAULT;
    cs.error_idx = cs.count;
    for (uint32_t i = 0; i < cs.count; ++i) {
        const ControlInfo* info = findControl(cs.controls[i].id);
        if (!info || (cs.controls[i].id & V4L2_CTRL_FLAG_NEXT_CTRL) ||
            (which >= V4L2_CTRL_CLASS_MPEG && V4L2_CTRL_ID2WHICH(info->id) != which)) {
            cs.error_idx = request == VIDIOC_TRY_EXT_CTRLS ? i : cs.count;
            return EINVAL;
        }
    }
    if (request == VIDIOC_G_EXT_CTRLS)
        return EACCES; // every control is write-only
    if (which == V4L2_CTRL_WHICH_DEF_VAL)
        return EINVAL;
    for (uint32_t i = 0; i < cs.count; ++i) {
        if (findControl(cs.controls[i].id)->flags & V4L2_CTRL_FLAG_READ_ONLY) {
            // TRY names the control; S_ fails before touching any, as the framework does.
            cs.error_idx = request == VIDIOC_TRY_EXT_CTRLS ? i : cs.count;
            return EACCES;
        }
    }
    if (request == VIDIOC_S_EXT_CTRLS)
        for (uint32_t i = 0; i < cs.count; ++i)
            controlSet(findControl(cs.controls[i].id)->id);
    return 0;
}

// Pressing the button: the key frame, and a value-change event to the other descriptors.
void VideoHandle::controlSet(uint32_t id)
{
    const ControlInfo* info = findControl(id);
    node_->requestKeyFrame();
    node_->events.controlChanged(info->id, info->type, info->flags, &events_);
}

// Control events only, as uvcvideo; the initial event of a write-only control says no
// more than its flags, and a control class has none.
int VideoHandle::subscribeEvent(const v4l2_event_subscription& sub)
{
    if (sub.type != V4L2_EVENT_CTRL)
        return EINVAL;
    const ControlInfo* info =
        (sub.id & V4L2_CTRL_FLAG_NEXT_CTRL) ? nullptr : findControl(sub.id);
    if (!info)
        return EINVAL;
    uint32_t changes = V4L2_EVENT_CTRL_CH_FLAGS;
    if (!(info->flags & V4L2_CTRL_FLAG_WRITE_ONLY))
        changes |= V4L2_EVENT_CTRL_CH_VALUE;
    const v4l2_event initial = controlEvent(info->id, info->type, info->flags, changes);
    events_.subscribe(sub, info->type == V4L2_CTRL_TYPE_CTRL_CLASS ? nullptr : &initial);
    return 0;
}

int VideoHandle::extensionQuery(uvc_xu_control_query& q)
{
    CameraState& camera = *node_->camera;
    const int unit = camera.config.extensionUnit;
    if (unit == 0 || q.unit != unit)
        return ENOENT;
    if (!q.data && q.size > 0)
        return EFAULT;
    switch (q.query) {
    case UVC_SET_CUR:
        if (q.size == 0)
            return EINVAL;
        camera.setExtensionControl(q.selector, std::vector<uint8_t>(q.data, q.data + q.size));
        return 0;
    case UVC_GET_CUR: {
        std::vector<uint8_t> stored = camera.extensionControl(q.selector);
        std::memset(q.data, 0, q.size);
        std::memcpy(q.data, stored.data(), std::min<size_t>(stored.size(), q.size));
        return 0;
    }
    case UVC_GET_LEN: {
        if (q.size != 2)
            return EINVAL;
        const size_t length = camera.extensionControl(q.selector).size();
        q.data[0] = uint8_t(length & 0xff);
        q.data[1] = uint8_t(length >> 8);
        return 0;
    }
    case UVC_GET_INFO:
        if (q.size != 1)
            return EINVAL;
        q.data[0] = UVC_CONTROL_CAP_GET | UVC_CONTROL_CAP_SET;
        return 0;
    case UVC_GET_MIN:
    case UVC_GET_MAX:
    case UVC_GET_RES:
    case UVC_GET_DEF:
        std::memset(q.data, 0, q.size);
        return 0;
    default:
        return EINVAL;
    }
}

int VideoHandle::enumInput(v4l2_input& input) const
{
    if (input.index != 0)
        return EINVAL;
    std::memset(&input, 0, sizeof input);
    copyText(input.name, "Camera 1");
    input.type = V4L2_INPUT_TYPE_CAMERA;
    return 0;
}

} // namespace simcam
