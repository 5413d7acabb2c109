// The built-in H.264 encoder as the element drives it: the stream it writes, checked packet
// by packet and by an independent decoder (the FFmpeg tools), and how it answers bad calls.
#include <gtest/gtest.h>

#include <QStandardPaths>
#include <QTemporaryFile>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numeric>
#include <optional>

#include "Codec/MediaCodec.h"

namespace {

using Codec::PIXEL_FORMAT_NV12;
using Codec::PIXEL_FORMAT_YUYV;
using E = Codec::Encoder;
using F = Codec::MediaFrame;

// A 4:2:0 picture, tightly packed; what both camera formats describe exactly.
struct I420Image {
    int width, height;
    std::vector<uint8_t> y, u, v;
};

// Picture `index` of a moving pattern: luma ramps, a travelling box, and U and V ramps that
// differ (so swapped planes show).
I420Image makePicture(int w, int h, int index)
{
    I420Image p{w, h, std::vector<uint8_t>(size_t(w) * h), {}, {}};
    p.u = p.v = std::vector<uint8_t>(size_t(w / 2) * (h / 2));
    const int boxW = w / 4, boxX = index * 8 % (w - boxW), boxY = h / 3 + index * 2 % (h / 3);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const bool inBox = x >= boxX && x < boxX + boxW && y >= boxY && y < boxY + h / 4;
            p.y[size_t(y) * w + x] = uint8_t(inBox ? 235 - (x - boxX) / 4 : 16 + (3 * x + 2 * y + 4 * index) % 200);
            if (x % 2 == 0 && y % 2 == 0) {
                p.u[size_t(y / 2) * (w / 2) + x / 2] = uint8_t(64 + (2 * x + index) % 128);
                p.v[size_t(y / 2) * (w / 2) + x / 2] = uint8_t(192 - (3 * (y / 2) + 2 * index) % 128);
            }
        }
    return p;
}

// The picture as a camera hands it over, tightly packed as the element describes it. YUYV
// repeats each chroma row for both picture rows.
struct CameraFrame {
    CameraFrame(const I420Image& p, uint64_t format = PIXEL_FORMAT_NV12)
    {
        const bool yuyv = format == PIXEL_FORMAT_YUYV;
        const size_t w = size_t(p.width), h = size_t(p.height);
        const size_t step = yuyv ? 2 : 1;  // between luma samples, and between chroma ones
        const size_t stride = step * w;
        bytes.resize(yuyv ? stride * h : stride * h + stride * (h / 2));
        for (size_t y = 0; y < h; ++y) {
            uint8_t* luma = bytes.data() + y * stride;
            // Both layouts alternate Cb and Cr along a row; NV12 has one chroma row per two.
            uint8_t* chroma = yuyv ? luma + 1 : bytes.data() + (h + y / 2) * stride;
            for (size_t x = 0; x < w; ++x) {
                const size_t c = y / 2 * (w / 2) + x / 2;
                luma[x * step] = p.y[y * w + x];
                chroma[x * step] = x % 2 ? p.v[c] : p.u[c];
            }
        }
        frame.data = bytes.data();
        frame.size = uint32_t(bytes.size());
        std::tie(frame.width, frame.height, frame.horStride, frame.verStride, frame.format) =
            std::tuple(uint32_t(w), uint32_t(h), uint32_t(stride), uint32_t(h), format);
    }
    F* get() { return &frame; }

    std::vector<uint8_t> bytes;
    F frame;  // not copyable, so neither is this: it points into bytes
};

struct StreamSettings {
    uint64_t format = PIXEL_FORMAT_NV12;
    uint32_t width = 320, height = 240;
};

std::unique_ptr<E> createH264Encoder()
{
    return std::unique_ptr<E>(Codec::MediaCodec::createEncoder(Codec::CODEC_H264));
}

// The element's calls, in its order, then configure(); returns what configure() returned.
int configureLikeElement(E& e, const StreamSettings& s = {})
{
    e.set(Codec::CONFIG_INPUT_FORMAT, unsigned(s.format));
    e.set(Codec::CONFIG_WIDTH, s.width);
    e.set(Codec::CONFIG_HEIGHT, s.height);
    e.set(Codec::CONFIG_HOR_STRIDE, (s.format == PIXEL_FORMAT_YUYV ? 2 : 1) * s.width);
    e.set(Codec::CONFIG_VER_STRIDE, s.height);
    for (auto key : {Codec::CONFIG_INPUT_FPS_NUM, Codec::CONFIG_OUTPUT_FPS_NUM})
        e.set(key, 30);
    for (auto key : {Codec::CONFIG_INPUT_FPS_DEN, Codec::CONFIG_OUTPUT_FPS_DEN})
        e.set(key, 1);
    e.set(Codec::CONFIG_GOP, 60);
    e.set(Codec::CONFIG_RATE_CONTROL, 1);
    e.set(Codec::CONFIG_BITRATE, 7340032);
    return e.configure();
}

// The bytes of the packet getPacket() hands over (releasing its buffer as the element
// does), or nothing when the record says no packet is ready.
std::vector<uint8_t> takePacket(E& encoder)
{
    const std::unique_ptr<Codec::MediaPacket> record = encoder.getPacket();
    EXPECT_TRUE(record) << "getPacket never returns null";
    const std::unique_ptr<Codec::MediaBuffer> buffer(record ? record->buffer : nullptr);
    EXPECT_EQ(record && record->status == 0, buffer != nullptr) << "a buffer for a packet only";
    if (!buffer || record->status != 0)
        return {};
    EXPECT_LE(buffer->length, buffer->size);
    const auto* bytes = static_cast<const uint8_t*>(buffer->data);
    return std::vector<uint8_t>(bytes, bytes + buffer->length);
}

// nal_unit_type of each NAL unit of an Annex B stream; -1 first if it lacks a start code.
std::vector<int> nalTypes(const std::vector<uint8_t>& s)
{
    std::vector<int> types;
    if (!(s.size() >= 4 && s[0] == 0 && s[1] == 0 && (s[2] == 1 || (s[2] == 0 && s[3] == 1))))
        types.push_back(-1);
    for (size_t i = 0; i + 3 < s.size(); ++i)
        if (s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1)
            types.push_back(s[i += 3] & 0x1f);
    return types;
}

// Writes `stream` to a temporary file and runs `before FILE after` in the shell; its
// stdout, or nothing when it fails.
std::optional<std::string> runOnStream(const std::vector<uint8_t>& stream, const std::string& before,
                                       const std::string& after = "")
{
    QTemporaryFile file;
    const auto size = qint64(stream.size());
    if (!file.open() || file.write(reinterpret_cast<const char*>(stream.data()), size) != size ||
        !file.flush())
        return std::nullopt;
    FILE* p = popen((before + " " + file.fileName().toStdString() + " " + after).c_str(), "r");
    std::string out;
    char buf[65536];
    for (size_t got; p && (got = fread(buf, 1, sizeof buf, p)) > 0;)
        out.append(buf, got);
    return p && pclose(p) == 0 ? std::optional(out) : std::nullopt;
}

double psnr(const uint8_t* a, const uint8_t* b, size_t n)
{
    const double sse = std::inner_product(a, a + n, b, 0.0, std::plus<>(),
                                          [](double x, double y) { return (x - y) * (x - y); });
    return sse == 0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 * double(n) / sse);
}

const std::vector<int> kIdrPicture{7, 8, 5};  // SPS, PPS, IDR slice

// Cases print, and so are named, by their `name`.
template <class Case> auto operator<<(std::ostream& os, const Case& c) -> decltype(os << c.name)
{
    return os << c.name;
}

struct StreamCase {
    const char* name;
    uint64_t format;
    uint32_t width, height;
};

class EncodedStream : public testing::TestWithParam<StreamCase> {};

// One packet per picture straight away, IDRs with their parameter sets at 0, 60 and 120;
// decoded, the stream is the pictures put in, which catches swapped or shifted planes and a
// picture coming out late.
TEST_P(EncodedStream, OnePacketPerPictureThatDecodesToThatPicture)
{
    const StreamCase& c = GetParam();
    auto encoder = createH264Encoder();
    ASSERT_EQ(configureLikeElement(*encoder, {c.format, c.width, c.height}), 0);
    // A few distinct pictures in turn: making 121 of them would cost more than encoding.
    std::vector<I420Image> pictures;
    for (int i = 0; i < 5; ++i)
        pictures.push_back(makePicture(int(c.width), int(c.height), i));
    const int count = 121;
    std::vector<uint8_t> stream;
    for (int i = 0; i < count; ++i) {
        CameraFrame frame(pictures[size_t(i) % pictures.size()], c.format);
        ASSERT_EQ(encoder->putFrame(frame.get()), 0) << "picture " << i;
        const std::vector<uint8_t> packet = takePacket(*encoder);
        ASSERT_TRUE(takePacket(*encoder).empty()) << "a second packet for picture " << i;
        ASSERT_EQ(nalTypes(packet), i % 60 ? std::vector<int>{1} : kIdrPicture) << "picture " << i;
        stream.insert(stream.end(), packet.begin(), packet.end());
    }

    for (const char* tool : {"ffprobe", "ffmpeg"})
        if (QStandardPaths::findExecutable(tool).isEmpty())
            GTEST_SKIP() << tool << " is not installed; the decoder checks need it";
    const auto probe = runOnStream(stream, "ffprobe -v error -count_frames -select_streams v:0 "
                                           "-show_entries stream=profile,width,height,nb_read_frames "
                                           "-of csv=p=0 -f h264");
    EXPECT_EQ(probe, "Constrained Baseline," + std::to_string(c.width) + "," +
                         std::to_string(c.height) + "," + std::to_string(count) + "\n");
    const auto yuv = runOnStream(stream, "ffmpeg -v error -f h264 -i", "-f rawvideo -pix_fmt yuv420p -");
    ASSERT_TRUE(yuv.has_value()) << "ffmpeg failed on the stream";
    const size_t luma = size_t(c.width) * c.height, chroma = luma / 4;
    ASSERT_EQ(yuv->size(), count * (luma + 2 * chroma));
    for (int i = 0; i < count; ++i) {
        const auto* y = reinterpret_cast<const uint8_t*>(yuv->data()) + i * (luma + 2 * chroma);
        const I420Image& in = pictures[size_t(i) % pictures.size()];
        // At this bit rate the small pictures come back nearly lossless; a fault costs far
        // more than this margin.
        EXPECT_GT(psnr(y, in.y.data(), luma), 38.0) << "luma of picture " << i;
        EXPECT_GT(psnr(y + luma, in.u.data(), chroma), 38.0) << "U of picture " << i;
        EXPECT_GT(psnr(y + luma + chroma, in.v.data(), chroma), 38.0) << "V of picture " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, EncodedStream,
                         testing::Values(StreamCase{"Yuyv", PIXEL_FORMAT_YUYV, 320, 240},
                                         // Not a whole number of macroblocks: cropped.
                                         StreamCase{"Nv12Cropped", PIXEL_FORMAT_NV12, 176, 100}),
                         testing::PrintToStringParamName());

// Bad input to a configured NV12 320x240 encoder: a spoiled frame, or else a setting that
// configure() refuses, which leaves the encoder unusable until configured again.
struct RefusalCase {
    const char* name;
    void (*spoil)(F&);
    Codec::Configure key = Codec::CONFIG_WIDTH;
    unsigned value = 0;
};

class Refused : public testing::TestWithParam<RefusalCase> {};

// A refused call encodes nothing: the next good picture is still the stream's first.
TEST_P(Refused, CallLeavesTheStreamUntouched)
{
    const RefusalCase& c = GetParam();
    auto encoder = createH264Encoder();
    ASSERT_EQ(configureLikeElement(*encoder), 0);
    CameraFrame bad(makePicture(320, 240, 0)), good(makePicture(320, 240, 0));
    if (c.spoil) {
        c.spoil(bad.frame);
        EXPECT_NE(encoder->putFrame(bad.get()), 0);
    } else {
        encoder->set(c.key, c.value);
        EXPECT_NE(encoder->configure(), 0);
        EXPECT_NE(encoder->putFrame(good.get()), 0) << "a failed configure leaves nothing usable";
        ASSERT_EQ(configureLikeElement(*encoder), 0);
    }
    EXPECT_TRUE(takePacket(*encoder).empty());
    ASSERT_EQ(encoder->putFrame(good.get()), 0);
    EXPECT_EQ(nalTypes(takePacket(*encoder)), kIdrPicture);
}

INSTANTIATE_TEST_SUITE_P(
    Calls, Refused,
    testing::Values(RefusalCase{"NoMemory", [](F& f) { f.data = nullptr; }},
                    RefusalCase{"OtherFormat", [](F& f) { f.format = PIXEL_FORMAT_YUYV; }},
                    RefusalCase{"Wider", [](F& f) { f.width += 2; }},
                    RefusalCase{"RowsShorterThanThePicture", [](F& f) { f.horStride -= 2; }},
                    RefusalCase{"FewerLinesThanThePicture", [](F& f) { f.verStride -= 2; }},
                    RefusalCase{"BufferOneByteShort", [](F& f) { f.size -= 1; }},
                    RefusalCase{"StrideBeyondTheBuffer", [](F& f) { f.horStride += 16; }},
                    RefusalCase{"UnknownInputFormat", nullptr, Codec::CONFIG_INPUT_FORMAT, 2},
                    RefusalCase{"OddWidth", nullptr, Codec::CONFIG_WIDTH, 321},
                    RefusalCase{"StrideShorterThanARow", nullptr, Codec::CONFIG_HOR_STRIDE, 318},
                    RefusalCase{"FewerLinesThanTheHeight", nullptr, Codec::CONFIG_VER_STRIDE, 200},
                    RefusalCase{"ZeroRateDenominator", nullptr, Codec::CONFIG_OUTPUT_FPS_DEN, 0}),
    testing::PrintToStringParamName());

// Frames only once configured, never a null one; after reset() the stream starts over: the
// first picture is coded exactly as a fresh encoder codes it (parameter sets, IDR, rate
// control back at its start), with or without a new configure().
TEST(H264Encoder, StreamStartsAtConfigureAndAgainAfterReset)
{
    CameraFrame first(makePicture(320, 240, 0)), other(makePicture(320, 240, 1));
    auto fresh = createH264Encoder(), encoder = createH264Encoder();
    EXPECT_NE(encoder->putFrame(first.get()), 0) << "not configured";
    EXPECT_NE(encoder->configure(), 0) << "no format or size set";
    EXPECT_NE(encoder->set(Codec::Configure(3), 1), 0) << "unknown key";
    ASSERT_EQ(configureLikeElement(*fresh), 0);
    EXPECT_NE(fresh->putFrame(nullptr), 0);
    ASSERT_EQ(fresh->putFrame(first.get()), 0);
    const std::vector<uint8_t> freshPacket = takePacket(*fresh);
    ASSERT_EQ(nalTypes(freshPacket), kIdrPicture);

    ASSERT_EQ(configureLikeElement(*encoder), 0);
    for (bool configure : {false, true}) {
        for (int i = 0; i < 3; ++i)
            ASSERT_EQ(encoder->putFrame((i % 2 ? first : other).get()), 0);
        EXPECT_EQ(encoder->reset(), 0);
        EXPECT_TRUE(takePacket(*encoder).empty()) << "reset drops waiting packets";
        if (configure) {
            ASSERT_EQ(configureLikeElement(*encoder), 0);
        }
        ASSERT_EQ(encoder->putFrame(first.get()), 0);
        EXPECT_EQ(takePacket(*encoder), freshPacket) << "configure " << configure;
    }
}

// A packet buffer handed over with status 0 is the receiver's to delete; one that comes with
// any other status stays the encoder's, whichever encoder the library made.
TEST(EncoderDeathTest, BufferOfAFailedPacketStaysTheEncoders)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    struct Answering : Codec::Encoder {
        int set(Codec::Configure, unsigned) override { return 0; }
        int configure() override { return 0; }
        int putFrame(Codec::MediaFrame*) override { return 0; }
        std::unique_ptr<Codec::MediaPacket> getPacket() override
        {
            auto packet = std::make_unique<Codec::MediaPacket>();
            packet->status = status++;
            packet->buffer = new Codec::MediaBuffer();
            return packet;
        }
        int reset() override { return 0; }
        int status = 0;
    };
    Codec::MediaCodec::setEncoderFactory([](Codec::CodecType) { return new Answering(); });
    const std::unique_ptr<E> encoder(Codec::MediaCodec::createEncoder(Codec::CODEC_H264));
    Codec::MediaCodec::setEncoderFactory({});
    ASSERT_NE(encoder, nullptr);
    delete encoder->getPacket()->buffer;  // status 0: ours
    const std::unique_ptr<Codec::MediaPacket> failed = encoder->getPacket();
    ASSERT_EQ(failed->status, 1);
    ASSERT_NE(failed->buffer, nullptr);
    EXPECT_DEATH(delete failed->buffer, "deleted while the encoder keeps it");
    encoder->getPacket();  // the encoder frees what it kept
}

} // namespace

