// Streaming: readiness through select(), frame content per format, pacing, stalls,
// STREAMOFF, key frames and dropped frames.
#include "SimTest.h"

#include <chrono>
#include <cstring>
#include <thread>

using namespace simcam;
using namespace simtest;
using Clock = std::chrono::steady_clock;

namespace {

bool startsWith(const uint8_t* data, std::initializer_list<uint8_t> prefix)
{
    return std::memcmp(data, prefix.begin(), prefix.size()) == 0;
}

struct ContentCase {
    const char* model;
    uint32_t fourcc;
    std::function<void(const v4l2_buffer&, const uint8_t*)> check;
};

const ContentCase kContentCases[] = {
    {"mjpeg", kFourccMJPG, [](const v4l2_buffer& b, const uint8_t* d) {
         EXPECT_TRUE(startsWith(d, {0xff, 0xd8})) << "JPEG SOI";
         EXPECT_TRUE(startsWith(d + b.bytesused - 2, {0xff, 0xd9})) << "JPEG EOI";
         EXPECT_TRUE(b.flags & V4L2_BUF_FLAG_KEYFRAME);
     }},
    {"h264", kFourccH264, [](const v4l2_buffer& b, const uint8_t* d) {
         EXPECT_TRUE(startsWith(d, {0, 0, 0, 1})) << "Annex B start code";
         if (b.sequence == 0) {
             EXPECT_TRUE(b.flags & V4L2_BUF_FLAG_KEYFRAME);
         }
     }},
    {"hevc", kFourccHEVC, [](const v4l2_buffer&, const uint8_t* d) {
         EXPECT_TRUE(startsWith(d, {0, 0, 0, 1}) || startsWith(d, {0, 0, 1}));
     }},
    {"yuyv", kFourccYUYV, [](const v4l2_buffer& b, const uint8_t*) {
         EXPECT_EQ(b.bytesused, 320u * 240 * 2);
     }},
    {"nv12", kFourccNV12, [](const v4l2_buffer& b, const uint8_t*) {
         EXPECT_EQ(b.bytesused, 320u * 240 * 3 / 2);
     }},
};

class Content : public SimTest, public ::testing::WithParamInterface<ContentCase> {};

TEST_P(Content, FramesCarryTheFormatsPayload)
{
    ScopedModel model(std::string(GetParam().model) + ",size=320x240,fps=100");
    Stream s("/dev/video0", GetParam().fourcc, 320, 240);
    ASSERT_EQ(s.error, 0) << s.failedAt;
    for (uint32_t i = 0; i < 5; ++i) {
        v4l2_buffer b{};
        ASSERT_EQ(s.dequeue(b), 0);
        EXPECT_EQ(b.sequence, i);
        EXPECT_GT(b.bytesused, 0u);
        EXPECT_LE(b.bytesused, s.format.fmt.pix.sizeimage);
        EXPECT_FALSE(b.flags & V4L2_BUF_FLAG_ERROR);
        EXPECT_EQ(b.m.fd, s.buffers[b.index].fd());
        GetParam().check(b, s.data(b));
        ASSERT_EQ(s.requeue(b), 0);
    }
    EXPECT_EQ(stats().framesDelivered, 5u);
}

INSTANTIATE_TEST_SUITE_P(Formats, Content, ::testing::ValuesIn(kContentCases),
                         [](const auto& info) { return std::string(info.param.model); });

TEST_F(SimTest, FramesArriveAtTheFrameInterval)
{
    ScopedModel model("yuyv,size=320x240,fps=50");
    Stream s("/dev/video0", kFourccYUYV, 320, 240);
    ASSERT_EQ(s.error, 0) << s.failedAt;
    v4l2_buffer first{};
    ASSERT_EQ(s.dequeue(first), 0);
    ASSERT_EQ(s.requeue(first), 0);
    const auto start = Clock::now();
    v4l2_buffer b{};
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(s.dequeue(b), 0);
        ASSERT_EQ(s.requeue(b), 0);
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    EXPECT_GT(seconds, 0.15) << "10 frames at 50 fps take 0.2 s";
    EXPECT_LT(seconds, 2.0);
    // Timestamps keep the camera's rhythm, counting any frame a slow reader made it drop.
    const double stamped = double(b.timestamp.tv_sec - first.timestamp.tv_sec) +
                           double(b.timestamp.tv_usec - first.timestamp.tv_usec) / 1e6;
    const uint32_t frames = b.sequence - first.sequence;
    EXPECT_GE(frames, 10u);
    EXPECT_NEAR(stamped / frames, 0.02, 0.006) << frames << " frames in " << stamped << " s";
}

TEST_F(SimTest, UnthrottledDeliversAsFastAsTaken)
{
    ScopedModel model("nv12,size=320x240,fps=0");
    Stream s("/dev/video0", kFourccNV12, 320, 240);
    ASSERT_EQ(s.error, 0) << s.failedAt;
    const auto start = Clock::now();
    for (int i = 0; i < 300; ++i) {
        v4l2_buffer b{};
        ASSERT_EQ(s.dequeue(b), 0);
        ASSERT_EQ(s.requeue(b), 0);
    }
    EXPECT_LT(std::chrono::duration<double>(Clock::now() - start).count(), 2.0); // 10 s at 30 fps
}

TEST_F(SimTest, StalledCameraNeverBecomesReadable)
{
    ScopedModel model("mjpeg,size=320x240,fps=100,stall");
    Stream s("/dev/video0", kFourccMJPG, 320, 240);
    ASSERT_EQ(s.error, 0) << s.failedAt;
    EXPECT_FALSE(waitReadable(s.fd.get(), 200));
    v4l2_buffer b = captureBuffer();
    EXPECT_EQ(xioctl(s.fd.get(), VIDIOC_DQBUF, &b), EAGAIN);

    modifyFaults([](Faults& f) { f.stall = false; });
    EXPECT_EQ(s.dequeue(b, 1000), 0);
}

TEST_F(SimTest, StreamOffReturnsEveryBuffer)
{
    ScopedModel model("mjpeg,size=320x240,fps=200");
    Stream s("/dev/video0", kFourccMJPG, 320, 240);
    ASSERT_EQ(s.error, 0) << s.failedAt;
    v4l2_buffer b{};
    ASSERT_EQ(s.dequeue(b), 0); // one in user space, the rest with the driver
    Stats st = stats();
    EXPECT_EQ(st.buffersDequeued, 1);
    EXPECT_EQ(st.buffersQueued, 3);
    EXPECT_TRUE(st.streaming());

    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ASSERT_EQ(xioctl(s.fd.get(), VIDIOC_STREAMOFF, &type), 0);
    st = stats();
    EXPECT_EQ(st.buffersQueued, 0);
    EXPECT_EQ(st.buffersDequeued, 4);
    EXPECT_FALSE(st.streaming());
    EXPECT_EQ(st.clockThreads, 0);
    // As a stopped videobuf2 queue: select reports an error condition, DQBUF refuses.
    EXPECT_TRUE(waitReadable(s.fd.get(), 0));
    v4l2_buffer d = captureBuffer();
    EXPECT_EQ(xioctl(s.fd.get(), VIDIOC_DQBUF, &d), EINVAL);

    // Every buffer can be queued again and streaming restarts from sequence 0.
    for (uint32_t i = 0; i < 4; ++i) {
        v4l2_buffer q = captureBuffer(i);
        q.m.fd = s.buffers[i].fd();
        q.length = uint32_t(s.buffers[i].size());
        ASSERT_EQ(xioctl(s.fd.get(), VIDIOC_QBUF, &q), 0) << i;
    }
    ASSERT_EQ(xioctl(s.fd.get(), VIDIOC_STREAMON, &type), 0);
    ASSERT_EQ(s.dequeue(b), 0);
    EXPECT_EQ(b.sequence, 0u);
}

TEST_F(SimTest, FramesWithoutAQueuedBufferAreDropped)
{
    ScopedModel model("yuyv,size=320x240,fps=100");
    Stream s("/dev/video0", kFourccYUYV, 320, 240, 2);
    ASSERT_EQ(s.error, 0) << s.failedAt;
    v4l2_buffer a{}, b{};
    ASSERT_EQ(s.dequeue(a), 0);
    ASSERT_EQ(s.dequeue(b), 0);
    ASSERT_TRUE(waitFor([](const Stats& st) { return st.framesDropped >= 3; },
                        std::chrono::milliseconds(2000)));
    ASSERT_EQ(s.requeue(a), 0);
    v4l2_buffer c{};
    ASSERT_EQ(s.dequeue(c), 0);
    EXPECT_GE(c.sequence, b.sequence + 4) << "dropped frames leave a gap in the sequence";
}

TEST_F(SimTest, BlockingDequeueWaitsForAFrame)
{
    ScopedModel model("nv12,size=320x240,fps=20");
    Fd fd = openNode("/dev/video0", O_RDWR); // blocking
    const v4l2_format f = setFormat(fd.get(), kFourccNV12, 320, 240);
    v4l2_requestbuffers r{};
    r.count = 1;
    r.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    r.memory = V4L2_MEMORY_DMABUF;
    ASSERT_EQ(xioctl(fd.get(), VIDIOC_REQBUFS, &r), 0);
    DmaBuffer buffer(f.fmt.pix.sizeimage);
    v4l2_buffer b = captureBuffer();
    b.m.fd = buffer.fd();
    b.length = uint32_t(buffer.size());
    ASSERT_EQ(xioctl(fd.get(), VIDIOC_QBUF, &b), 0);
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ASSERT_EQ(xioctl(fd.get(), VIDIOC_STREAMON, &type), 0);
    for (int i = 0; i < 3; ++i) {
        v4l2_buffer d = captureBuffer();
        ASSERT_EQ(xioctl(fd.get(), VIDIOC_DQBUF, &d), 0); // no select
        EXPECT_EQ(d.bytesused, f.fmt.pix.sizeimage);
        ASSERT_EQ(xioctl(fd.get(), VIDIOC_QBUF, &d), 0);
    }
}

TEST_F(SimTest, ForcedKeyFrameStartsANewGop)
{
    ScopedModel model("h264,size=320x240,fps=100,gop=30,clip=30");
    Stream s("/dev/video0", kFourccH264, 320, 240);
    ASSERT_EQ(s.error, 0) << s.failedAt;
    std::vector<bool> key;
    for (int i = 0; i < 6; ++i) {
        v4l2_buffer b{};
        ASSERT_EQ(s.dequeue(b), 0);
        key.push_back(b.flags & V4L2_BUF_FLAG_KEYFRAME);
        ASSERT_EQ(s.requeue(b), 0);
    }
    EXPECT_EQ(key, (std::vector<bool>{true, false, false, false, false, false}));

    v4l2_control c{V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME, 1};
    ASSERT_EQ(xioctl(s.fd.get(), VIDIOC_S_CTRL, &c), 0);
    // Frames already filled still arrive; a key frame follows within the queue's depth.
    bool sawKey = false;
    for (int i = 0; i < 6 && !sawKey; ++i) {
        v4l2_buffer b{};
        ASSERT_EQ(s.dequeue(b), 0);
        sawKey = b.flags & V4L2_BUF_FLAG_KEYFRAME;
        ASSERT_EQ(s.requeue(b), 0);
    }
    EXPECT_TRUE(sawKey);
}

TEST_F(SimTest, KeyFrameControlCanBeAbsent)
{
    ScopedModel model("h264,nokeyctl");
    Fd fd = openNode("/dev/video0");
    v4l2_control c{V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME, 1};
    EXPECT_EQ(xioctl(fd.get(), VIDIOC_S_CTRL, &c), EINVAL);
    v4l2_queryctrl q{};
    q.id = V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME;
    EXPECT_EQ(xioctl(fd.get(), VIDIOC_QUERYCTRL, &q), EINVAL);
    modifyFaults([](Faults& f) { f.noKeyFrameControl = false; });
    EXPECT_EQ(xioctl(fd.get(), VIDIOC_QUERYCTRL, &q), 0);
    EXPECT_EQ(q.type, uint32_t(V4L2_CTRL_TYPE_BUTTON));
    EXPECT_EQ(xioctl(fd.get(), VIDIOC_S_CTRL, &c), 0);
}

TEST_F(SimTest, LargeHevcFramesFitTheElementsBuffers)
{
    ScopedModel model("hevc-large,fps=100");
    Stream s("/dev/video0", kFourccHEVC, 1920, 1080);
    ASSERT_EQ(s.error, 0) << s.failedAt;
    ASSERT_EQ(s.buffers[0].size(), 3u * 1920 * 1088);
    for (int i = 0; i < 3; ++i) {
        v4l2_buffer b{};
        ASSERT_EQ(s.dequeue(b, 10000), 0);
        EXPECT_GT(b.bytesused, 3110400u);
        EXPECT_FALSE(b.flags & V4L2_BUF_FLAG_ERROR);
        ASSERT_EQ(s.requeue(b), 0);
    }
}

TEST_F(SimTest, IoctlsAreCountedAndLoggedInOrder)
{
    ScopedModel model("mjpeg,size=320x240,fps=100");
    {
        Stream s("/dev/video0", kFourccMJPG, 320, 240, 2);
        ASSERT_EQ(s.error, 0) << s.failedAt;
        v4l2_buffer b{};
        ASSERT_EQ(s.dequeue(b), 0);
    }
    const Stats st = stats();
    std::vector<unsigned long> order;
    for (const IoctlRecord& r : st.ioctls)
        order.push_back(r.request);
    EXPECT_EQ(order, (std::vector<unsigned long>{VIDIOC_S_FMT, VIDIOC_REQBUFS, VIDIOC_QBUF,
                                                 VIDIOC_QBUF, VIDIOC_STREAMON, VIDIOC_DQBUF,
                                                 VIDIOC_STREAMOFF}));
    EXPECT_EQ(st.ioctlCount(VIDIOC_QBUF), 2u);
    EXPECT_EQ(st.ioctls.front().path, "/dev/video0");
    ASSERT_EQ(st.opens.size(), 1u);
    EXPECT_EQ(st.opens[0].flags, O_RDWR | O_NONBLOCK);
    EXPECT_GE(st.opens[0].result, 0);
    EXPECT_EQ(ioctlName(VIDIOC_DQBUF), "VIDIOC_DQBUF");
}

} // namespace
