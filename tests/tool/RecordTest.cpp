// camcap recording what the simulated camera delivers, and failing with its own exit codes.

#include <gtest/gtest.h>

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <cmath>
#include <csignal>

#include "ToolRun.h"

namespace {

struct RecordCase : Row {
    const char* model;     // its first word is the format asked for
    const char* file;
    const char* codec;     // in the file
    int interruptAfterMs;  // 0: --duration 3
    int keyEvery = 0;      // the element's encoder: a key frame every 60 frames
};

class Record : public testing::TestWithParam<RecordCase> {};

TEST_P(Record, KeepsEveryFrameWithItsTime)
{
    const RecordCase& c = GetParam();
    const bool raw = !QString(c.file).endsWith(".mp4") && !QString(c.file).endsWith(".mkv");
    if (!raw && !kContainers)
        GTEST_SKIP() << "camcap was built without libavformat";
    QTemporaryDir dir;
    const QString file = dir.filePath(c.file);
    const QString format = QString(c.model).section(',', 0, 0);
    QStringList args{"--simulate", c.model, "--format", format, "--size", "640x480", "--output", file, "--json"};
    if (!c.interruptAfterMs)
        args << "--duration" << "3";
    const ToolRun run = camcap(args, watching(file, c.interruptAfterMs ? SIGINT : 0, c.interruptAfterMs));
    ASSERT_EQ(run.exitCode, 0) << qPrintable(run.err);
    EXPECT_TRUE(run.err.contains(format == c.codec ? QStringLiteral("summary: ") + c.codec
                                                   : QStringLiteral("h264 (encoded from %1)").arg(format)))
        << qPrintable(run.err);
    const QJsonObject summary = run.summary();
    EXPECT_EQ(summary.value("width").toInt(), 640);
    const auto probed = probeFrames(file);
    if (!probed)
        GTEST_SKIP() << "ffprobe is not installed";
    EXPECT_EQ(probed->codec, c.codec);
    EXPECT_EQ(probed->frames, summary.value("frames").toInt());
    // The frames that arrived below 3 s less half a frame interval, at 30/s; an encoding row
    // gets fewer where the machine (a sanitizer build) cannot encode at the camera's rate.
    if (!c.interruptAfterMs && !c.keyEvery) {
        EXPECT_EQ(probed->frames, 90);
    }
    EXPECT_GT(probed->frames, 20);
    if (!raw) {
        EXPECT_NEAR(probed->duration, summary.value("seconds").toDouble(), 0.05 * summary.value("seconds").toDouble());
    }
    for (int key : c.keyEvery ? keyFrames(file) : std::vector<int>{})
        EXPECT_EQ(key % c.keyEvery, 0);
}

INSTANTIATE_TEST_SUITE_P(Formats, Record,
                         testing::Values(RecordCase{"H264", "h264,clip=10,gop=5", "out.h264", "h264", 0},
                                         RecordCase{"MjpegInterrupted", "mjpeg,clip=5", "out.mjpeg", "mjpeg", 3000},
                                         RecordCase{"Hevc", "hevc,clip=5,gop=5", "out.hevc", "hevc", 0},
                                         RecordCase{"H264Mp4", "h264,clip=10,gop=5", "out.mp4", "h264", 0},
                                         RecordCase{"HevcMp4Interrupted", "hevc,clip=5,gop=5", "o.mp4", "hevc", 3000},
                                         RecordCase{"MjpegMp4", "mjpeg,clip=5", "out.mp4", "mjpeg", 0},
                                         RecordCase{"H264MkvInterrupted", "h264,clip=10,gop=5", "o.mkv", "h264", 3000},
                                         RecordCase{"HevcMkv", "hevc,clip=5,gop=5", "out.mkv", "hevc", 0},
                                         RecordCase{"MjpegMkvInterrupted", "mjpeg,clip=5", "o.mkv", "mjpeg", 3000},
                                         RecordCase{"EncodedYuyv", "yuyv", "out.h264", "h264", 0, 60},
                                         RecordCase{"EncodedNv12Mkv", "nv12", "out.mkv", "h264", 0, 60}),
                         RowName());

struct SegmentCase : Row {
    const char* model;
    const char* file;
    double segment, duration;
};

class Segments : public testing::TestWithParam<SegmentCase> {};

// Boundaries fall every S seconds from the first frame; every model has a key frame on each.
TEST_P(Segments, AreEachSSecondsWithinAFrameAndStartWithAKeyFrame)
{
    const SegmentCase& c = GetParam();
    if (!QString(c.file).endsWith(".mjpeg") && !kContainers)
        GTEST_SKIP() << "camcap was built without libavformat";
    QTemporaryDir dir;
    const ToolRun run = camcap({"--simulate", c.model, "--format", QString(c.model).section(',', 0, 0), "--size",
                                "640x480", "--segment", QString::number(c.segment),
                                "--duration", QString::number(c.duration), "--output", dir.filePath(c.file), "--json"});
    ASSERT_EQ(run.exitCode, 0) << qPrintable(run.err);
    const QStringList files = run.files();
    ASSERT_EQ(files.size(), int(std::ceil(c.duration / c.segment))) << qPrintable(files.join(' '));
    EXPECT_EQ(filesIn(dir.path()), files);
    int total = 0;
    for (int k = 0; k < files.size(); ++k) {
        const auto probed = probeFrames(files[k]);
        if (!probed)
            GTEST_SKIP() << "ffprobe is not installed";
        const double length = std::min(c.segment, c.duration - k * c.segment);
        EXPECT_NEAR(probed->frames, 30 * length, 1) << qPrintable(files[k]);
        if (probed->duration >= 0) {
            EXPECT_NEAR(probed->duration, length, 1.0 / 30 + 0.005) << qPrintable(files[k]);
        }
        EXPECT_TRUE(startsWithKeyFrame(files[k])) << qPrintable(files[k]);
        total += probed->frames;
    }
    EXPECT_EQ(total, run.summary().value("frames").toInt());
}

INSTANTIATE_TEST_SUITE_P(Files, Segments,
                         testing::Values(SegmentCase{"H264Mkv", "h264,clip=20,gop=10", "rec-%03d.mkv", 1, 3.5},
                                         SegmentCase{"Mjpeg", "mjpeg,clip=5", "rec.mjpeg", 1, 3.5},
                                         SegmentCase{"TenSecondsMp4", "h264,gop=30,clip=60", "rec.mp4", 10, 60}),
                         RowName());

struct FailureCase : Row {
    QStringList args;
    int exitCode;
    const char* message;
};

class Failure : public testing::TestWithParam<FailureCase> {};

// Run where the output would land; a run that fails leaves no file behind.
TEST_P(Failure, EndsWithItsOwnExitCodeAndSaysWhyLeavingNoFile)
{
    QTemporaryDir dir;
    RunOptions options;
    options.cwd = dir.path();
    const ToolRun run = camcap(GetParam().args, options);
    EXPECT_EQ(run.exitCode, GetParam().exitCode) << qPrintable(run.err);
    EXPECT_TRUE(run.err.contains(QString::fromLatin1(GetParam().message))) << qPrintable(run.err);
    EXPECT_TRUE(run.exitCode != 2 || run.err.count('\n') == 2) << "one line and where to look";
    EXPECT_EQ(filesIn(dir.path()), QStringList());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Failure,
    testing::Values(FailureCase{"Usage", {"--size", "big"}, 2, "bad size"},
                    FailureCase{"UnknownOption", {"--colour"}, 2, "Try 'camcap --help'"},
                    FailureCase{"ContainerToStdout", {"--container", "mp4", "--output", "-"}, 2, "standard output"},
                    FailureCase{"NoPlugin", {"--plugin", "/nonexistent.so"}, 3, "not found"},
                    FailureCase{"NoCamera", {"--simulate", "h264,open=ENOENT", "--output", "o.h264"}, 4, "no camera"},
                    FailureCase{"FormatNotOffered", {"--simulate", "h264", "--format", "yuyv", "--output", "o.mkv"}, 5,
                                "offers no yuyv format (it offers h264;"},
                    FailureCase{"MjpegFromAnH264Camera", {"--simulate", "h264", "--format", "mjpeg", "--output", "o.mkv"},
                                5, "offers no mjpeg format"},
                    FailureCase{"MjpegAtASizeFromAnH264Camera", {"--simulate", "h264", "--format", "mjpeg", "--size",
                                "640x480", "--output", "o.mkv"}, 5, "offers no mjpeg format"},
                    FailureCase{"HevcFromAnH264Camera", {"--simulate", "h264", "--format", "hevc", "--output", "o.hevc"},
                                5, "offers no hevc format"},
                    FailureCase{"FormatRefusedAtPlay", {"--simulate", "h264,sfmt=EINVAL", "--frames", "1", "--output",
                                "o.h264"}, 5, "format refused"},
                    FailureCase{"Unwritable", {"--simulate", "h264", "--output", "/nonexistent/dir/out.h264"}, 6,
                                "cannot write"},
                    FailureCase{"DiskFull", {"--simulate", "h264", "--frames", "9", "--output", "/dev/full"}, 9,
                                "camcap: disk full"},
                    FailureCase{"DiskFullAtTheHeader", {"--simulate", "h264", "--frames", "9", "--output", "/dev/full",
                                "--container", "mkv"}, kContainers ? 9 : 6,
                                kContainers ? "camcap: disk full" : "container support"},
                    FailureCase{"BuffersRefused", {"--simulate", "h264,qbuf=EINVAL", "--frames", "1", "--output",
                                "o.h264"}, 7, "capture buffers"}),
    RowName());

TEST(Record, ForcedKeyFramesReachTheCamera)
{
    QTemporaryDir dir;
    const QString file = dir.filePath("out.h264");
    // The clip's own key frames are far apart; forced ones come every 10 frames.
    const ToolRun run = camcap({"--simulate", "h264,clip=60,gop=60", "--size", "640x480", "--frames", "60",
                                "--force-idr", "10", "--output", file});
    ASSERT_EQ(run.exitCode, 0) << qPrintable(run.err);
    EXPECT_GE(keyFrames(file).size(), haveFfprobe() ? 3u : 0u);
}

TEST(Record, StandardOutputCarriesOnlyTheStream)
{
    const ToolRun run = camcap({"--simulate", "h264,clip=4,gop=4", "--size", "640x480", "--frames", "8", "--output", "-"});
    ASSERT_EQ(run.exitCode, 0) << qPrintable(run.err);
    ASSERT_GT(run.out.size(), 5);
    EXPECT_TRUE(run.out.startsWith(QByteArray("\0\0\0\1", 4)) || run.out.startsWith(QByteArray("\0\0\1", 3)));
}

// Frame rates a camera offers (model text) and how camcap shows them.
class FormatList : public testing::TestWithParam<std::pair<std::string, std::string>> {};

TEST_P(FormatList, ShowsTheSizesAUserWouldPickFromARangeWithTheirRatesAsTextAndJson)
{
    const QStringList args{"--simulate", QStringLiteral("mjpeg,size=160x120-1280x720:16x8,") + QString::fromStdString(GetParam().first),
                           "--list-formats"};
    const ToolRun text = camcap(args), json = camcap(args + QStringList{"--json"});
    ASSERT_EQ(text.exitCode + json.exitCode, 0) << qPrintable(text.err + json.err);
    QStringList sizes;
    for (const QJsonValue& v : json.json().value("formats").toArray()) {
        const int w = v["width"].toInt(), h = v["height"].toInt();
        QStringList rates;
        for (const QJsonValue& r : v["fps"].toArray())
            rates << r.toString();
        EXPECT_EQ(rates.join(", "), QString::fromStdString(GetParam().second));
        EXPECT_TRUE(text.out.contains(QStringLiteral("mjpeg  %1 %2  %3").arg(w, 6).arg(h, 6).arg(QString::fromStdString(GetParam().second)).toUtf8()));
        sizes << QStringLiteral("%1x%2").arg(w).arg(h);
    }
    ASSERT_FALSE(sizes.isEmpty());
    EXPECT_EQ(sizes.first() + ' ' + sizes.last(), "160x120 1280x720");
    EXPECT_TRUE(sizes.contains("640x480")) << qPrintable(sizes.join(' '));
}

INSTANTIATE_TEST_SUITE_P(Rates, FormatList,
                         testing::Values(std::make_pair(std::string("fps=30/15"), std::string("30, 15")),
                                         std::make_pair(std::string("fps=5-30"), std::string("5-30"))),
                         [](const auto& info) {
                             return QString::fromStdString(info.param.first).remove(QRegExp("\\W")).toStdString();
                         });

} // namespace
