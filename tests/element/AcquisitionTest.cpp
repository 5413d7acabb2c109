// Taking filled buffers from the driver: the compressed read with its backlog rules, the
// direct read, and the camera controls. Bitstreams are crafted byte by byte.

#include <linux/uvcvideo.h>
#include <linux/videodev2.h>

#include <cerrno>

#include "SimElementFixture.h"

namespace {

using namespace testsupport;
using Bytes = std::vector<uint8_t>;

Bytes nal(std::initializer_list<uint8_t> startCode, uint8_t header, size_t payload = 8)
{
    Bytes b(startCode);
    b.push_back(header);
    b.insert(b.end(), payload, 0xAB);
    return b;
}

Bytes concat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

const Bytes kSps = nal({0, 0, 0, 1}, 0x67);
const Bytes kPps = nal({0, 0, 0, 1}, 0x68);
const Bytes kIdr = nal({0, 0, 1}, 0x65);

class Acquisition : public SimElementTest {
protected:
    // Streams `frames` in turn; `fault` is model text.
    void stream(uint32_t fourcc, std::vector<Bytes> frames, const std::string& fault = "", int w = 640, int h = 480)
    {
        simcam::Model model = camera(fourcc, "unthrottled," + fault, w, h);
        model.cameras[0].nodes[0].scriptedFrames = std::move(frames);
        useCamera(model, fourcc, w, h);
        prepare();
        ASSERT_EQ(element->v4l2_stream_on(), 0);
    }
};

struct BacklogCase {
    const char* name;
    uint32_t fourcc;
    size_t waiting;
    Bytes frame;
    size_t after;  // entries after the read; as many as before: the frame was dropped
};

class Backlog : public Acquisition, public testing::WithParamInterface<BacklogCase> {};

// H.264 flushes the queue above 200 waiting, at a key frame only; MJPEG drops the frame when
// two are waiting.
TEST_P(Backlog, FlushesOrDropsAsTheFormatSays)
{
    const BacklogCase& c = GetParam();
    stream(c.fourcc, {c.frame});
    fillQueue(c.waiting);
    EXPECT_EQ(element->v4l2_get_one_frame2(), 0);
    const auto entries = queued();
    ASSERT_EQ(entries.size(), c.after);
    EXPECT_EQ(entries.back() == c.frame, c.after != c.waiting);  // the whole buffer, from its first byte
    EXPECT_EQ(simcam::stats().buffersDequeued, 0);
}

const Bytes kJpeg{0xFF, 0xD8, 1, 2, 3, 0xFF, 0xD9};

INSTANTIATE_TEST_SUITE_P(
    Cases, Backlog,
    testing::Values(
        BacklogCase{"AtTwoHundredNoScan", kH264, 200, concat({kSps, kPps, kIdr}), 201},
        BacklogCase{"SpsPpsIdrFlushes", kH264, 201, concat({kSps, kPps, kIdr}), 1},
        BacklogCase{"ShortestIdrFlushes", kH264, 201, Bytes{0, 0, 1, 0x65, 0x88}, 1},
        BacklogCase{"FourByteIdrFlushes", kH264, 201, nal({0, 0, 0, 1}, 0x25), 1},  // nal_ref_idc bits ignored
        BacklogCase{"PSliceKeeps", kH264, 201, nal({0, 0, 1}, 0x41), 202},
        BacklogCase{"SeiKeeps", kH264, 201, concat({nal({0, 0, 1}, 0x06), kIdr}), 202},
        BacklogCase{"NextStartCodeInLastFourBytesKeeps", kH264, 201, concat({kSps, Bytes{0, 0, 1, 0x65}}), 202},
        BacklogCase{"NoStartCodeKeeps", kH264, 201, Bytes{0, 0, 2, 0x65, 0x88, 0x88}, 202},
        BacklogCase{"MjpegNoneWaiting", kMJPG, 0, kJpeg, 1}, BacklogCase{"MjpegOneWaiting", kMJPG, 1, kJpeg, 2},
        BacklogCase{"MjpegTwoWaitingDrops", kMJPG, 2, kJpeg, 2}, BacklogCase{"MjpegFiveWaitingDrops", kMJPG, 5, kJpeg, 5}),
    [](const testing::TestParamInfo<BacklogCase>& info) { return std::string(info.param.name); });

struct HevcCase {
    uint32_t bytes;
    std::vector<uint32_t> pieces;
};

class HevcSplit : public Acquisition, public testing::WithParamInterface<HevcCase> {};

TEST_P(HevcSplit, PiecesOfAtMostOneRawFrame)
{
    Bytes frame(GetParam().bytes);
    for (size_t i = 0; i < frame.size(); ++i)
        frame[i] = uint8_t(i * 13 + i / 4093);
    stream(kHEVC, {frame}, "", 1920, 1080);
    EXPECT_EQ(element->v4l2_get_one_frame2(), 0);
    const auto entries = queued();
    ASSERT_EQ(entries.size(), GetParam().pieces.size());
    Bytes joined;
    for (size_t i = 0; i < entries.size(); ++i) {
        EXPECT_EQ(entries[i].size(), GetParam().pieces[i]);
        joined.insert(joined.end(), entries[i].begin(), entries[i].end());
    }
    EXPECT_EQ(joined, frame);
}

INSTANTIATE_TEST_SUITE_P(Sizes, HevcSplit,
                         testing::Values(HevcCase{3110400, {3110400}}, HevcCase{3110401, {3110400, 1}},
                                         HevcCase{6220801, {3110400, 3110400, 1}}, HevcCase{100, {100}}),
                         [](const testing::TestParamInfo<HevcCase>& info) { return std::to_string(info.param.bytes) + "Bytes"; });

TEST_F(Acquisition, EmptyBuffersAndRawFormatsQueueNothing)
{
    stream(kH264, {kIdr}, "empty=1");
    EXPECT_EQ(element->v4l2_get_one_frame2(), 0);
    probe.setCapture(kNV12, 640, 480);  // misuse: raw formats belong to the encoder path
    simcam::setFaults({}, "video0");
    EXPECT_EQ(element->v4l2_get_one_frame2(), 0);
    EXPECT_TRUE(queued().empty());
    EXPECT_EQ(simcam::stats().ioctlCount(VIDIOC_DQBUF), 2u);
    EXPECT_EQ(simcam::stats().buffersDequeued, 0);
}

TEST_F(Acquisition, ByteCountBeyondTheBufferIsNeverReadPastItsEnd)
{
    const Bytes frame(4000, 0x42);
    stream(kMJPG, {frame}, "overrun=2000000");
    EXPECT_EQ(element->v4l2_get_one_frame2(), 0);
    const auto entries = queued();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].size(), probe.frame(0)->size);
    EXPECT_TRUE(log.contains("exceeds buffer", 1));
}

// A driver index with no capture frame behind it (an empty slot, or beyond the four) is
// never read.
class MissingFrame : public Acquisition, public testing::WithParamInterface<int> {};

TEST_P(MissingFrame, IsNotRead)
{
    const int index = GetParam();
    stream(kH264, {kIdr}, "badindex=" + std::to_string(index));
    probe.dropFrame(0);
    EXPECT_EQ(element->v4l2_get_one_frame2(), -1);
    EXPECT_TRUE(queued().empty());
}

INSTANTIATE_TEST_SUITE_P(Indexes, MissingFrame, testing::Values(0, 4, 31),
                         [](const testing::TestParamInfo<int>& info) { return "Index" + std::to_string(info.param); });

TEST_F(Acquisition, RequeueFailureFailsTheRead)
{
    stream(kH264, {kIdr}, "qbuf-stream=EIO");
    EXPECT_EQ(element->v4l2_get_one_frame2(), -1);
    EXPECT_EQ(queued().size(), 1u);  // the frame itself was taken before
    // The quoted line, then the driver's reason on the next.
    const auto lines = log.lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_NE(lines[lines.size() - 2].text.find("ERROR: VIDIOC_QBUF failed\n\n"), std::string::npos);
    EXPECT_NE(lines.back().text.find("reason: Input/output error"), std::string::npos);
}

// ---- direct read ----------------------------------------------------------------------

struct DirectCase {
    const char* name;
    size_t payload;
    unsigned capacity;
    const char* fault;  // model text
    int result;
    int expectedSize;  // -1: untouched
};

class DirectRead : public Acquisition, public testing::WithParamInterface<DirectCase> {};

TEST_P(DirectRead, ReportsAndCopiesAtMostTheFramesCapacity)
{
    const DirectCase& c = GetParam();
    const Bytes payload(c.payload, 0x5C);
    stream(kMJPG, {payload}, c.fault);
    MediaFrame frame(c.capacity);
    frame.setSize(-1);
    EXPECT_EQ(element->v4l2_get_one_frame(&frame), c.result);
    EXPECT_EQ(frame.size(), c.expectedSize);
    EXPECT_LE(frame.size(), int(frame.capacity()));
    if (c.expectedSize > 0) {
        EXPECT_EQ(Bytes(frame.bytes(), frame.bytes() + frame.size()), payload);
    }
    EXPECT_EQ(simcam::stats().buffersDequeued, 0);  // the buffer always goes back
}

INSTANTIATE_TEST_SUITE_P(Cases, DirectRead,
                         testing::Values(DirectCase{"Fits", 1000, 4096, "", 0, 1000},
                                         DirectCase{"Exact", 4096, 4096, "", 0, 4096},
                                         DirectCase{"TooLarge", 4097, 4096, "", 0, 0},
                                         DirectCase{"Empty", 0, 4096, "empty=1", 0, -1},
                                         DirectCase{"DequeueFails", 1000, 4096, "dqbuf=EIO", -1, -1}),
                         [](const testing::TestParamInfo<DirectCase>& info) { return std::string(info.param.name); });

// ---- controls -------------------------------------------------------------------------

TEST_F(Acquisition, ForceKeyFrameDependsOnTheControl)
{
    stream(kH264, {kIdr});
    EXPECT_EQ(element->v4l2_h264_force_idr(), 0);
    simcam::modifyFaults([](simcam::Faults& f) { f.noKeyFrameControl = true; }, "video0");
    EXPECT_EQ(element->v4l2_h264_force_idr(), -1);
    EXPECT_TRUE(log.contains("v4l2_h264_force_idr#************* error!***********", 0));
    EXPECT_EQ(simcam::stats().ioctlCount(VIDIOC_S_CTRL), 2u);
}

TEST_F(Acquisition, ExtensionUnitControlsRoundTrip)
{
    useCamera(kH264);
    ASSERT_EQ(element->v4l2_dev_open(), 0);
    const int fd = probe.fd();
    uint8_t in[3] = {1, 2, 3};
    EXPECT_EQ(UvcExtenFuncSet(fd, 0x105, in, 3), 0);  // selector cut to 8 bits: 5
    EXPECT_EQ(simcam::extensionControl(0, 5), Bytes({1, 2, 3}));
    uint8_t out[3] = {};
    EXPECT_EQ(UvcExtenFuncGet(fd, 5, out, 3), 0);
    EXPECT_EQ(Bytes(out, out + 3), Bytes({1, 2, 3}));

    // 65536 + 2 is cut to 2: only two bytes travel.
    uint8_t wide[4] = {9, 8, 7, 6};
    EXPECT_EQ(UvcExtenFuncSet(fd, 6, wide, 65538u), 0);
    EXPECT_EQ(simcam::extensionControl(0, 6), Bytes({9, 8}));

    const uint64_t before = simcam::stats().ioctlCount(UVCIOC_CTRL_QUERY);
    EXPECT_EQ(UvcExtenFuncSet(-1, 5, in, 3), -1);
    EXPECT_EQ(UvcExtenFuncGet(-1, 5, out, 3), -1);
    EXPECT_EQ(simcam::stats().ioctlCount(UVCIOC_CTRL_QUERY), before);

    simcam::configure(camera(kH264, "xu=0"));
    ASSERT_EQ(element->v4l2_dev_open(), 0);
    EXPECT_EQ(UvcExtenFuncGet(probe.fd(), 5, out, 3), -1);
}

} // namespace
