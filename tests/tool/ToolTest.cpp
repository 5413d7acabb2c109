// camcap run as a user runs it, against the simulated camera.

#include <gtest/gtest.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QThread>
#include <csignal>
#include <vector>

namespace {

struct ToolRun {
    int exitCode = -1;
    QByteArray out;
    QString err;
    double afterFirstBytes = 0;  // seconds from the output's first bytes to the exit
    QJsonObject summary() const { return QJsonDocument::fromJson(out).object().value("summary").toObject(); }
};

// Runs camcap; with `watch` set, waits for that file to get its first bytes and, when
// `interruptAfterMs` is set, interrupts the run that long after.
ToolRun camcap(const QStringList& args, const QString& watch = {}, int interruptAfterMs = 0)
{
    QProcess p;
    p.start(QStringLiteral(CAMCAP_PATH), args);
    p.waitForStarted();
    QElapsedTimer clock;
    if (!watch.isEmpty()) {
        for (int i = 0; i < 1200 && QFile(watch).size() == 0 && p.state() == QProcess::Running; ++i)
            QThread::msleep(25);
        clock.start();
        if (interruptAfterMs > 0) {
            QThread::msleep(interruptAfterMs);
            ::kill(pid_t(p.processId()), SIGINT);
        }
    }
    p.waitForFinished(120000);
    return {p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1, p.readAllStandardOutput(),
            QString::fromUtf8(p.readAllStandardError()), clock.isValid() ? clock.elapsed() / 1000.0 : 0};
}

// ffprobe's view of a file's video stream (-of json), or nothing when it is not installed.
QJsonObject probe(const QString& file, const QStringList& what)
{
    const QString ffprobe = QStandardPaths::findExecutable(QStringLiteral("ffprobe"));
    if (ffprobe.isEmpty())
        return {};
    QProcess p;
    p.start(ffprobe, QStringList{"-v", "error", "-select_streams", "v:0", "-of", "json"} + what + QStringList{file});
    p.waitForFinished(120000);
    return QJsonDocument::fromJson(p.readAllStandardOutput()).object();
}

// Decoded frames, codec and container duration (-1 when the file has none).
struct Probed { int frames = 0; QString codec; double duration = -1; };
std::optional<Probed> frames(const QString& file)
{
    const QJsonObject o = probe(file, {"-count_frames", "-show_entries", "stream=codec_name,nb_read_frames:format=duration"});
    if (o.isEmpty())
        return std::nullopt;
    const QJsonObject s = o.value("streams").toArray().at(0).toObject();
    const QJsonValue d = o.value("format").toObject().value("duration");
    return Probed{s.value("nb_read_frames").toString().toInt(), s.value("codec_name").toString(),
                  d.isUndefined() ? -1 : d.toString().toDouble()};
}

// Numbers of the frames ffprobe reports as key frames, in decode order.
std::vector<int> keyFrames(const QString& file, const QStringList& limit = {})
{
    std::vector<int> keys;
    const QJsonArray list = probe(file, QStringList{"-show_entries", "frame=key_frame"} + limit).value("frames").toArray();
    for (int i = 0; i < list.size(); ++i)
        if (list[i].toObject().value("key_frame").toInt() == 1)
            keys.push_back(i);
    return keys;
}

const bool kContainers = CAMCAP_CONTAINERS;  // camcap was built with libavformat

struct RecordCase {
    const char* name;
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
    const ToolRun run = camcap(args, file, c.interruptAfterMs);
    ASSERT_EQ(run.exitCode, 0) << qPrintable(run.err);
    EXPECT_TRUE(run.err.contains(format == c.codec ? QStringLiteral("summary: ") + c.codec
                                                   : QStringLiteral("h264 (encoded from %1)").arg(format)))
        << qPrintable(run.err);
    const QJsonObject summary = run.summary();
    const auto probed = frames(file);
    if (!probed)
        GTEST_SKIP() << "ffprobe is not installed";
    EXPECT_EQ(probed->codec, c.codec);
    EXPECT_EQ(probed->frames, summary.value("frames").toInt());
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
                         [](const testing::TestParamInfo<RecordCase>& info) { return std::string(info.param.name); });

// A model that loses the camera after 30 frames, a second in, and what camcap says then.
class LostCamera : public testing::TestWithParam<std::pair<const char*, const char*>> {};

TEST_P(LostCamera, EndsWithinTheStallTimeoutWithAPlayableFile)
{
    QTemporaryDir dir;
    const QString file = dir.filePath(kContainers ? "out.mkv" : "out.h264");
    const ToolRun run = camcap({"--simulate", GetParam().first, "--size", "640x480", "--stall-timeout", "2",
                                "--output", file, "--json"}, file);
    EXPECT_EQ(run.exitCode, 8) << qPrintable(run.err);
    EXPECT_TRUE(run.err.contains(GetParam().second)) << qPrintable(run.err);
    // The stall timeout plus 2 s after the loss, a second in; an emulator only has to end.
    EXPECT_LT(run.afterFirstBytes, qEnvironmentVariableIsSet("ARMHF_QEMU") ? 60 : 1.0 + 2 + 2);
    const auto probed = frames(file);
    if (!probed)
        GTEST_SKIP() << "ffprobe is not installed";
    EXPECT_EQ(probed->frames, run.summary().value("frames").toInt());
    EXPECT_GE(probed->frames, 29);
}

INSTANTIATE_TEST_SUITE_P(Cases, LostCamera,
                         testing::Values(std::make_pair("h264,gop=5,unplug=30", "camera unplugged"),
                                         std::make_pair("h264,gop=5,stallafter=30", "camera stopped delivering")),
                         [](const auto& info) { return QString(info.param.second).section(' ', 1, 1).toStdString(); });

class Segments : public testing::TestWithParam<std::pair<const char*, const char*>> {};

TEST_P(Segments, AddUpToTheRecordingAndEachStartsWithAKeyFrame)
{
    const auto [model, file] = GetParam();
    if (QString(file).endsWith(".mkv") && !kContainers)
        GTEST_SKIP() << "camcap was built without libavformat";
    QTemporaryDir dir;
    const ToolRun run = camcap({"--simulate", model, "--size", "640x480", "--segment", "1", "--duration", "3.5",
                                "--output", dir.filePath(file), "--json"});
    ASSERT_EQ(run.exitCode, 0) << qPrintable(run.err);
    const QJsonArray files = run.summary().value("files").toArray();
    EXPECT_GE(files.size(), 3);
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files).size(), files.size());
    int total = 0;
    for (const QJsonValue& f : files) {
        const auto probed = frames(f.toString());
        if (!probed)
            GTEST_SKIP() << "ffprobe is not installed";
        total += probed->frames;
        EXPECT_EQ(keyFrames(f.toString(), {"-read_intervals", "%+#1"}), std::vector<int>{0}) << qPrintable(f.toString());
    }
    EXPECT_EQ(total, run.summary().value("frames").toInt());
}

INSTANTIATE_TEST_SUITE_P(Files, Segments,
                         testing::Values(std::make_pair("h264,clip=20,gop=10", "rec-%03d.mkv"),
                                         std::make_pair("mjpeg,clip=5", "rec.mjpeg")),
                         [](const auto& info) { return std::string(info.param.first).substr(0, 4); });

TEST(Tool, ASegmentThatCannotBeOpenedEndsTheRun)
{
    QTemporaryDir dir;
    ASSERT_TRUE(QDir(dir.path()).mkdir("0"));  // the first file's directory, not the second's
    const ToolRun run = camcap({"--simulate", "mjpeg,clip=5", "--size", "640x480", "--segment", "0.5", "--duration",
                                "3", "--output", dir.filePath("%d/rec.mjpeg")});
    EXPECT_EQ(run.exitCode, 6) << qPrintable(run.err);
    EXPECT_TRUE(run.err.contains("1/rec.mjpeg")) << qPrintable(run.err);
}

struct FailureCase {
    const char* name;
    QStringList args;
    int exitCode;
    const char* message;
};

class Failure : public testing::TestWithParam<FailureCase> {};

TEST_P(Failure, EndsWithItsOwnExitCodeAndSaysWhy)
{
    const ToolRun run = camcap(GetParam().args);
    EXPECT_EQ(run.exitCode, GetParam().exitCode) << qPrintable(run.err);
    EXPECT_TRUE(run.err.contains(QString::fromLatin1(GetParam().message))) << qPrintable(run.err);
    EXPECT_TRUE(run.exitCode != 2 || run.err.count('\n') == 2) << "one line and where to look";
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Failure,
    testing::Values(FailureCase{"Usage", {"--size", "big"}, 2, "bad size"},
                    FailureCase{"UnknownOption", {"--colour"}, 2, "Try 'camcap --help'"},
                    FailureCase{"ContainerToStdout", {"--container", "mp4", "--output", "-"}, 2, "standard output"},
                    FailureCase{"NoPlugin", {"--plugin", "/nonexistent.so"}, 3, "not found"},
                    FailureCase{"NoCamera", {"--simulate", "h264,open=ENOENT"}, 4, "no camera"},
                    FailureCase{"FormatNotOffered", {"--simulate", "h264", "--format", "yuyv"}, 5, "offers no yuyv format (it offers h264;"},
                    FailureCase{"FormatRefusedAtPlay", {"--simulate", "h264,sfmt=EINVAL", "--frames", "1"}, 5,
                                "format refused"},
                    FailureCase{"Unwritable", {"--simulate", "h264", "--output", "/nonexistent/dir/out.h264"}, 6,
                                "cannot write"},
                    FailureCase{"DiskFull", {"--simulate", "h264", "--frames", "9", "--output", "/dev/full"}, 6,
                                "writing /dev/full failed"},
                    FailureCase{"DiskFullAtTheIndex", {"--simulate", "h264", "--frames", "9", "--output", "/dev/full",
                                "--container", "mkv"}, 6, kContainers ? "trailer" : "container support"},
                    FailureCase{"BuffersRefused", {"--simulate", "h264,qbuf=EINVAL", "--frames", "1"}, 7,
                                "capture buffers"}),
    [](const testing::TestParamInfo<FailureCase>& info) { return std::string(info.param.name); });

TEST(Tool, ForcedKeyFramesReachTheCamera)
{
    QTemporaryDir dir;
    const QString file = dir.filePath("out.h264");
    // The clip's own key frames are far apart; forced ones come every 10 frames.
    const ToolRun run = camcap({"--simulate", "h264,clip=60,gop=60", "--size", "640x480", "--frames", "60",
                                "--force-idr", "10", "--output", file});
    ASSERT_EQ(run.exitCode, 0) << qPrintable(run.err);
    EXPECT_GE(keyFrames(file).size(), QStandardPaths::findExecutable("ffprobe").isEmpty() ? 0u : 3u);
}

// Frame rates a camera offers (model text) and how camcap shows them.
class FormatList : public testing::TestWithParam<std::pair<const char*, const char*>> {};

TEST_P(FormatList, ShowsTheSizesAUserWouldPickFromARangeWithTheirRatesAsTextAndJson)
{
    const QStringList args{"--simulate", QStringLiteral("mjpeg,size=160x120-1280x720:16x8,") + GetParam().first,
                           "--list-formats"};
    const ToolRun text = camcap(args), json = camcap(args + QStringList{"--json"});
    ASSERT_EQ(text.exitCode + json.exitCode, 0) << qPrintable(text.err + json.err);
    QStringList sizes;
    for (const QJsonValue& v : QJsonDocument::fromJson(json.out).object().value("formats").toArray()) {
        const int w = v["width"].toInt(), h = v["height"].toInt();
        QStringList rates;
        for (const QJsonValue& r : v["fps"].toArray())
            rates << r.toString();
        EXPECT_EQ(rates.join(", "), GetParam().second);
        EXPECT_TRUE(text.out.contains(QStringLiteral("mjpeg  %1 %2  %3").arg(w, 6).arg(h, 6).arg(GetParam().second).toUtf8()));
        sizes << QStringLiteral("%1x%2").arg(w).arg(h);
    }
    EXPECT_EQ(sizes.first() + ' ' + sizes.last(), "160x120 1280x720");
    EXPECT_TRUE(sizes.contains("640x480")) << qPrintable(sizes.join(' '));
}

INSTANTIATE_TEST_SUITE_P(Rates, FormatList,
                         testing::Values(std::make_pair("fps=30/15", "30, 15"), std::make_pair("fps=5-30", "5-30")));

TEST(Tool, StandardOutputCarriesOnlyTheStream)
{
    const ToolRun run = camcap({"--simulate", "h264,clip=4,gop=4", "--size", "640x480", "--frames", "8", "--output", "-"});
    ASSERT_EQ(run.exitCode, 0) << qPrintable(run.err);
    ASSERT_GT(run.out.size(), 5);
    EXPECT_TRUE(run.out.startsWith(QByteArray("\0\0\0\1", 4)) || run.out.startsWith(QByteArray("\0\0\1", 3)));
}

} // namespace
