// The USB reset path: the sysfs walk from /sys/class/video4linux to busnum/devnum, done
// with Qt exactly as the element does it, and the usbfs node that takes the reset.
#include "SimTest.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <linux/ioctl.h>
#include <linux/usbdevice_fs.h>
#include <map>
#include <sys/ioctl.h>

using namespace simcam;
using namespace simtest;

namespace {

QByteArray readTrimmed(const QDir& dir, const char* name)
{
    QFile f(dir.filePath(name));
    if (!f.open(QIODevice::ReadOnly))
        return {};
    return f.readAll().trimmed();
}

// Per class entry: "BUS/DEV@LEVEL" (LEVEL 1: beside the interface, 2: one above) or "none".
std::map<std::string, std::string> walkSysfs()
{
    std::map<std::string, std::string> found;
    const QFileInfoList entries = QDir("/sys/class/video4linux/")
                                      .entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot,
                                                     QDir::NoSort);
    for (const QFileInfo& info : entries) {
        QDir dir(info.isSymLink() ? info.symLinkTarget() : info.absolutePath());
        dir.cdUp();
        dir.cdUp();
        int level = 1;
        if (!dir.exists("busnum") || !dir.exists("devnum")) {
            dir.cdUp();
            level = 2;
        }
        std::string result = "none";
        if (dir.exists("busnum") && dir.exists("devnum"))
            result = (readTrimmed(dir, "busnum") + "/" + readTrimmed(dir, "devnum")).toStdString() +
                     "@" + std::to_string(level);
        found[info.fileName().toStdString()] = result;
    }
    return found;
}

struct WalkCase {
    const char* model;
    std::map<std::string, std::string> expected;
};

class SysfsWalk : public SimTest, public ::testing::WithParamInterface<WalkCase> {};

TEST_P(SysfsWalk, FindsEachCamerasUsbAddress)
{
    ScopedModel model(GetParam().model);
    EXPECT_EQ(walkSysfs(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, SysfsWalk,
    ::testing::Values(
        WalkCase{"usb=device,bus=12,dev=123", {{"video0", "12/123@2"}, {"video1", "12/123@2"}}},
        WalkCase{"usb=interface,bus=3,dev=7", {{"video0", "3/7@1"}, {"video1", "3/7@1"}}},
        WalkCase{"usb=none", {{"video0", "none"}, {"video1", "none"}}},
        WalkCase{"cameras=2,cam1.usb=interface,cam1.bus=5,cam1.dev=9",
                 {{"video0", "1/2@2"}, {"video1", "1/2@2"}, {"video2", "5/9@1"}, {"video3", "5/9@1"}}},
        WalkCase{"cameras=2,cam1.usb=none",
                 {{"video0", "1/2@2"}, {"video1", "1/2@2"}, {"video2", "none"}, {"video3", "none"}}}));

TEST_F(SimTest, ClassEntriesAreAbsoluteLinksIntoTheShadowTree)
{
    ScopedModel model("h264");
    QFileInfo info("/sys/class/video4linux/video0");
    ASSERT_TRUE(info.isSymLink());
    EXPECT_TRUE(info.symLinkTarget().startsWith(QString::fromStdString(shadowRoot())));
    EXPECT_TRUE(QFileInfo(info.symLinkTarget()).isDir());
    QFile name(info.symLinkTarget() + "/name");
    ASSERT_TRUE(name.open(QIODevice::ReadOnly));
    EXPECT_EQ(name.readAll().trimmed(), "Simulated UVC Camera");
}

int resetIoctl(int fd)
{
    return ioctl(fd, USBDEVFS_RESET, 0) == 0 ? 0 : errno;
}

TEST_F(SimTest, UsbfsNodeRecordsResets)
{
    ScopedModel model("h264,bus=12,dev=123");
    const std::string path = "/dev/bus/usb/012/123";
    {
        Fd usb = openNode(path, O_WRONLY);
        ASSERT_TRUE(usb.valid()) << strerror(errno);
        EXPECT_EQ(resetIoctl(usb.get()), 0);
        EXPECT_EQ(resetIoctl(usb.get()), 0);
        int value = 0;
        EXPECT_EQ(xioctl(usb.get(), USBDEVFS_CONNECTINFO, &value), ENOTTY);
    }
    const Stats s = stats();
    EXPECT_EQ(s.resetCount(path), 2);
    EXPECT_EQ(s.ioctlCount(USBDEVFS_RESET), 2u);

    errno = 0;
    EXPECT_FALSE(openNode(path, O_RDONLY).valid());
    EXPECT_EQ(errno, EACCES);
    errno = 0;
    EXPECT_FALSE(openNode("/dev/bus/usb/012/124", O_WRONLY).valid());
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(SimTest, PlatformCameraHasNoUsbfsNode)
{
    ScopedModel model("h264,usb=none");
    errno = 0;
    EXPECT_FALSE(openNode("/dev/bus/usb/001/002", O_WRONLY).valid());
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(SimTest, UsbfsFaults)
{
    {
        ScopedModel model("h264,usbopen=EACCES");
        errno = 0;
        EXPECT_FALSE(openNode("/dev/bus/usb/001/002", O_WRONLY).valid());
        EXPECT_EQ(errno, EACCES);
    }
    ScopedModel model("h264,reset=EIO");
    Fd usb = openNode("/dev/bus/usb/001/002", O_WRONLY);
    EXPECT_EQ(resetIoctl(usb.get()), EIO);
    EXPECT_EQ(stats().resetCount("/dev/bus/usb/001/002"), 1);
}

TEST_F(SimTest, ResetReenumeratesTheCamera)
{
    ScopedModel model("h264");
    Fd video = openNode("/dev/video0");
    Fd usb = openNode("/dev/bus/usb/001/002", O_WRONLY);
    ASSERT_EQ(resetIoctl(usb.get()), 0);
    v4l2_format f{};
    f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    EXPECT_EQ(xioctl(video.get(), VIDIOC_G_FMT, &f), ENODEV);
    Fd again = openNode("/dev/video0");
    EXPECT_EQ(xioctl(again.get(), VIDIOC_G_FMT, &f), 0);
}

struct ReplugCase {
    const char* model;
    bool comesBack;
};

class ResetAfterUnplug : public SimTest, public ::testing::WithParamInterface<ReplugCase> {};

TEST_P(ResetAfterUnplug, BringsTheCameraBackUnlessToldNot)
{
    ScopedModel model(GetParam().model);
    unplug(0);
    EXPECT_FALSE(openNode("/dev/video0").valid());
    Fd usb = openNode("/dev/bus/usb/001/002", O_WRONLY);
    ASSERT_EQ(resetIoctl(usb.get()), 0);
    EXPECT_EQ(openNode("/dev/video0").valid(), GetParam().comesBack);
}

INSTANTIATE_TEST_SUITE_P(Models, ResetAfterUnplug,
                         ::testing::Values(ReplugCase{"h264", true}, ReplugCase{"h264,noreplug", false}));

} // namespace
