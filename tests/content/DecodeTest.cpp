// Coded clips through ffmpeg's decoders: every frame decodes, at the right size, in the
// right order, including across the loop point.
#include "TestSupport.h"

#include "content/Pattern.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <unistd.h>

namespace simcam {
namespace {

using test::fourccName;
using test::frame;
using test::run;

struct DecodeCase {
    uint32_t fourcc;
    int w, h;
    int clipFrames, keyInterval;
    size_t hevcMinFrameBytes;
};

std::string describe(const DecodeCase& c)
{
    return fourccName(c.fourcc) + "_" + std::to_string(c.w) + "x" + std::to_string(c.h) +
           (c.hevcMinFrameBytes ? "_padded" : "");
}
void PrintTo(const DecodeCase& c, std::ostream* os) { *os << describe(c); }
std::string decodeName(const ::testing::TestParamInfo<DecodeCase>& i) { return describe(i.param); }

const char* demuxer(uint32_t f)
{
    return f == kFourccH264 ? "h264" : f == kFourccHEVC ? "hevc" : "mjpeg";
}

class TempFile {
public:
    TempFile()
    {
        char name[] = "/tmp/content_test_XXXXXX";
        const int fd = mkstemp(name);
        if (fd >= 0)
            close(fd);
        path_ = name;
    }
    ~TempFile() { std::remove(path_.c_str()); }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

class Decode : public ::testing::TestWithParam<DecodeCase> {
protected:
    void SetUp() override
    {
        if (!test::haveTool("ffprobe") || !test::haveTool("ffmpeg"))
            GTEST_SKIP() << "ffprobe/ffmpeg not installed";
        const DecodeCase& c = GetParam();
        ContentOptions o;
        o.clipFrames = c.clipFrames;
        o.keyInterval = c.keyInterval;
        o.hevcMinFrameBytes = c.hevcMinFrameBytes;
        source_ = ContentSource::get(c.fourcc, c.w, c.h, o);
        ASSERT_TRUE(source_);
        // One and a half loops, so the stream crosses the loop point.
        frames_ = c.clipFrames + c.clipFrames / 2;
        std::ofstream out(file_.path(), std::ios::binary);
        for (int i = 0; i < frames_; ++i) {
            const auto f = frame(*source_, uint64_t(i));
            out.write(reinterpret_cast<const char*>(f.data()), std::streamsize(f.size()));
        }
        ASSERT_TRUE(out.good());
    }

    std::string input() const
    {
        return std::string("-f ") + demuxer(GetParam().fourcc) + " -i " + file_.path();
    }

    std::shared_ptr<const ContentSource> source_;
    int frames_ = 0;
    TempFile file_;
};

TEST_P(Decode, EveryFrameDecodesAtTheRightSize)
{
    const DecodeCase& c = GetParam();
    int status = -1;
    const std::string out = run("ffprobe -v error -count_frames -select_streams v:0 "
                                "-show_entries stream=width,height,nb_read_frames -of csv=p=0 -f " +
                                    std::string(demuxer(c.fourcc)) + " " + file_.path() + " 2>&1",
                                &status);
    ASSERT_EQ(status, 0) << out;
    // Anything before the numbers would be a decoder complaint.
    std::ostringstream expected;
    expected << c.w << "," << c.h << "," << frames_ << "\n";
    EXPECT_EQ(out, expected.str());
}

TEST_P(Decode, DecodedFramesShowTheClipInOrder)
{
    const DecodeCase& c = GetParam();
    TempFile gray;
    int status = -1;
    const std::string log = run("ffmpeg -v error -y " + input() +
                                    " -f rawvideo -pix_fmt gray " + gray.path() + " 2>&1",
                                &status);
    ASSERT_EQ(status, 0) << log;
    EXPECT_EQ(log, "");
    std::ifstream in(gray.path(), std::ios::binary);
    std::vector<uint8_t> pixels((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t picture = size_t(c.w) * size_t(c.h);
    ASSERT_EQ(pixels.size(), picture * size_t(frames_));
    for (int i = 0; i < frames_; ++i) {
        uint32_t stamp = 0;
        ASSERT_TRUE(Pattern::readStamp(pixels.data() + picture * size_t(i), size_t(c.w), 1, c.w,
                                       c.h, &stamp));
        EXPECT_EQ(stamp, uint32_t(i % c.clipFrames)) << "decoded frame " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Clips, Decode,
    ::testing::Values(DecodeCase{kFourccH264, 640, 480, 12, 4, 0},
                      DecodeCase{kFourccHEVC, 640, 480, 12, 4, 0},
                      DecodeCase{kFourccMJPG, 640, 480, 12, 4, 0},
                      DecodeCase{kFourccH264, 1280, 720, 10, 5, 0},
                      DecodeCase{kFourccHEVC, 1280, 720, 10, 5, 0},
                      DecodeCase{kFourccMJPG, 1280, 720, 10, 5, 0},
                      DecodeCase{kFourccH264, 1920, 1080, 30, 30, 0},
                      DecodeCase{kFourccHEVC, 640, 480, 6, 3, 3110401},
                      DecodeCase{kFourccH264, 642, 362, 6, 3, 0}),
    decodeName);

} // namespace
} // namespace simcam
