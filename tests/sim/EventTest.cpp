// Control events: what a subscription is answered with, who hears a control being set,
// and how a pending event shows in poll(), select() and a blocking or non-blocking DQEVENT.

#include "SimTest.h"

#include <chrono>
#include <poll.h>
#include <thread>

namespace {

using namespace simtest;
using simcam::ScopedModel;

int subscribe(int fd, uint32_t type, uint32_t id, uint32_t flags = V4L2_EVENT_SUB_FL_SEND_INITIAL)
{
    v4l2_event_subscription sub{};
    sub.type = type;
    sub.id = id;
    sub.flags = flags;
    return xioctl(fd, VIDIOC_SUBSCRIBE_EVENT, &sub);
}

int pressKeyFrame(int fd)
{
    v4l2_control c{V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME, 0};
    return xioctl(fd, VIDIOC_S_CTRL, &c);
}

UniqueFd openCamera(int flags = O_NONBLOCK)
{
    return UniqueFd(::open("/dev/video0", O_RDWR | flags));
}

struct SubscribeRow {
    const char* name;
    uint32_t type, id;
    int error;
    uint32_t initialChanges; // 0: no initial event
};

TEST_F(SimTest, SubscriptionsAreAnsweredAsByTheDriver)
{
    ScopedModel model("h264");
    const SubscribeRow rows[] = {
        {"button: flags only (write-only)", V4L2_EVENT_CTRL, V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME,
         0, V4L2_EVENT_CTRL_CH_FLAGS},
        {"control class: no initial event", V4L2_EVENT_CTRL, V4L2_CID_MPEG_CLASS, 0, 0},
        {"unknown control", V4L2_EVENT_CTRL, V4L2_CID_BRIGHTNESS, EINVAL, 0},
        {"next-control flag", V4L2_EVENT_CTRL, V4L2_CTRL_FLAG_NEXT_CTRL, EINVAL, 0},
        {"end of stream", V4L2_EVENT_EOS, 0, EINVAL, 0},
        {"source change", V4L2_EVENT_SOURCE_CHANGE, 0, EINVAL, 0},
    };
    for (const SubscribeRow& row : rows) {
        SCOPED_TRACE(row.name);
        UniqueFd fd = openCamera();
        ASSERT_EQ(subscribe(fd.get(), row.type, row.id), row.error);
        v4l2_event ev{};
        if (!row.initialChanges) {
            EXPECT_EQ(xioctl(fd.get(), VIDIOC_DQEVENT, &ev), ENOENT);
            continue;
        }
        ASSERT_EQ(xioctl(fd.get(), VIDIOC_DQEVENT, &ev), 0);
        EXPECT_EQ(ev.type, row.type);
        EXPECT_EQ(ev.id, row.id);
        EXPECT_EQ(ev.u.ctrl.changes, row.initialChanges);
        EXPECT_EQ(ev.u.ctrl.type, uint32_t(V4L2_CTRL_TYPE_BUTTON));
        EXPECT_EQ(ev.pending, 0u);
        EXPECT_EQ(xioctl(fd.get(), VIDIOC_DQEVENT, &ev), ENOENT);
    }
}

TEST_F(SimTest, SettingAControlNotifiesTheOtherSubscribers)
{
    ScopedModel model("h264");
    UniqueFd setter = openCamera(), other = openCamera(), feedback = openCamera(), gone = openCamera();
    const uint32_t key = V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME;
    ASSERT_EQ(subscribe(setter.get(), V4L2_EVENT_CTRL, key, 0), 0);
    ASSERT_EQ(subscribe(other.get(), V4L2_EVENT_CTRL, key, 0), 0);
    ASSERT_EQ(subscribe(feedback.get(), V4L2_EVENT_CTRL, key, V4L2_EVENT_SUB_FL_ALLOW_FEEDBACK), 0);
    ASSERT_EQ(subscribe(gone.get(), V4L2_EVENT_CTRL, key, 0), 0);
    v4l2_event_subscription all{};
    all.type = V4L2_EVENT_ALL;
    ASSERT_EQ(xioctl(gone.get(), VIDIOC_UNSUBSCRIBE_EVENT, &all), 0);

    auto heard = [](int fd) {
        int count = 0;
        v4l2_event ev{};
        while (xioctl(fd, VIDIOC_DQEVENT, &ev) == 0) {
            EXPECT_EQ(ev.u.ctrl.changes, uint32_t(V4L2_EVENT_CTRL_CH_VALUE));
            ++count;
        }
        return count;
    };

    // Pressed twice by one descriptor: the others hear one event, the changes merged.
    ASSERT_EQ(pressKeyFrame(setter.get()), 0);
    ASSERT_EQ(pressKeyFrame(setter.get()), 0);
    const struct {
        const char* name;
        int fd;
        int events;
    } rows[] = {{"the setter itself", setter.get(), 0},
                {"another subscriber", other.get(), 1},
                {"feedback asked for, another's press", feedback.get(), 1},
                {"unsubscribed", gone.get(), 0}};
    for (const auto& row : rows)
        EXPECT_EQ(heard(row.fd), row.events) << row.name;
    ASSERT_EQ(pressKeyFrame(feedback.get()), 0);
    EXPECT_EQ(heard(feedback.get()), 1) << "feedback asked for, its own press";
}

TEST_F(SimTest, PendingEventsShowAsPriorityData)
{
    ScopedModel model("h264");
    UniqueFd fd = openCamera(0), setter = openCamera();
    ASSERT_EQ(subscribe(fd.get(), V4L2_EVENT_CTRL, V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME, 0), 0);
    auto exceptional = [&](int timeoutMs) {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(fd.get(), &set);
        timeval tv{0, timeoutMs * 1000};
        return select(fd.get() + 1, nullptr, nullptr, &set, &tv) == 1 && FD_ISSET(fd.get(), &set);
    };
    pollfd p{fd.get(), POLLPRI, 0};
    EXPECT_EQ(poll(&p, 1, 20), 0) << "nothing pending, and the idle queue left out";
    EXPECT_FALSE(exceptional(20));

    // A blocking DQEVENT waits for the event another descriptor causes.
    std::thread press([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        pressKeyFrame(setter.get());
    });
    v4l2_event ev{};
    EXPECT_EQ(xioctl(fd.get(), VIDIOC_DQEVENT, &ev), 0);
    press.join();

    ASSERT_EQ(pressKeyFrame(setter.get()), 0);
    EXPECT_EQ(poll(&p, 1, 1000), 1);
    EXPECT_EQ(p.revents, POLLPRI);
    EXPECT_TRUE(exceptional(1000));
    // The descriptor was opened blocking; O_NONBLOCK set later counts from then on.
    ASSERT_EQ(fcntl(fd.get(), F_SETFL, fcntl(fd.get(), F_GETFL) | O_NONBLOCK), 0);
    EXPECT_TRUE(fcntl(fd.get(), F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(xioctl(fd.get(), VIDIOC_DQEVENT, &ev), 0);
    EXPECT_EQ(xioctl(fd.get(), VIDIOC_DQEVENT, &ev), ENOENT);
    EXPECT_FALSE(exceptional(20));

    // Blocking again: an unplug ends the wait.
    ASSERT_EQ(fcntl(fd.get(), F_SETFL, fcntl(fd.get(), F_GETFL) & ~O_NONBLOCK), 0);
    std::thread unplug([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        simcam::unplug(0);
    });
    EXPECT_EQ(xioctl(fd.get(), VIDIOC_DQEVENT, &ev), ENODEV);
    unplug.join();
}

} // namespace
