// camcap run as a user runs it, against the simulated camera.

#include <gtest/gtest.h>

#include <QFile>
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
};

ToolRun camcap(const QStringList& args, int timeoutMs = 60000)
{
    QProcess p;
    p.start(QStringLiteral(CAMCAP_PATH), args);
    p.waitForFinished(timeoutMs);
    return {p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1, p.readAllStandardOutput(),
            QString::fromUtf8(p.readAllStandardError())};
}

// Frames ffprobe decodes from an elementary stream; -1 when ffprobe is missing.
int decodedFrames(const QString& file, const char* demuxer)
{
    const QString ffprobe = QStandardPaths::findExecutable(QStringLiteral("ffprobe"));
    if (ffprobe.isEmpty())
        return -1;
    QProcess p;
    p.start(ffprobe, {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-count_frames"),
                      QStringLiteral("-select_streams"), QStringLiteral("v:0"), QStringLiteral("-show_entries"),
                      QStringLiteral("stream=nb_read_frames,width,height"), QStringLiteral("-of"),
                      QStringLiteral("csv=p=0"), QStringLiteral("-f"), QString::fromLatin1(demuxer), file});
    p.waitForFinished(60000);
    // width,height,frames
    const QList<QByteArray> fields = p.readAllStandardOutput().trimmed().split(',');
    return fields.size() == 3 ? fields[2].toInt() : 0;
}

struct RecordCase {
    const char* name;
    const char* model;
    const char* format;
    const char* demuxer;
    int frames;
};

class Record : public testing::TestWithParam<RecordCase> {};

TEST_P(Record, WritesAStreamThatDecodesFrameForFrame)
{
    QTemporaryDir dir;
    const QString file = dir.filePath(QStringLiteral("out.bin"));
    const RecordCase& c = GetParam();
    const ToolRun run = camcap({QStringLiteral("--simulate"), QString::fromLatin1(c.model), QStringLiteral("--format"),
                            QString::fromLatin1(c.format), QStringLiteral("--size"), QStringLiteral("640x480"),
                            QStringLiteral("--frames"), QString::number(c.frames), QStringLiteral("--output"), file});
    ASSERT_EQ(run.exitCode, 0) << qPrintable(run.err);
    EXPECT_TRUE(run.err.contains(QStringLiteral("summary"))) << qPrintable(run.err);
    EXPECT_GT(QFile(file).size(), 0);
    const int decoded = decodedFrames(file, c.demuxer);
    if (decoded < 0)
        GTEST_SKIP() << "ffprobe is not installed";
    EXPECT_EQ(decoded, c.frames);
}

INSTANTIATE_TEST_SUITE_P(Formats, Record,
                         testing::Values(RecordCase{"H264", "h264,clip=10,gop=5", "h264", "h264", 20},
                                         RecordCase{"Mjpeg", "mjpeg,clip=5", "mjpeg", "mjpeg", 12},
                                         RecordCase{"Hevc", "hevc,clip=5,gop=5", "hevc", "hevc", 10}),
                         [](const testing::TestParamInfo<RecordCase>& info) { return std::string(info.param.name); });

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
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Failure,
    testing::Values(
        FailureCase{"Usage", {QStringLiteral("--size"), QStringLiteral("big")}, 2, "bad size"},
        FailureCase{"NoPlugin", {QStringLiteral("--plugin"), QStringLiteral("/nonexistent.so")}, 3, "not found"},
        FailureCase{"NoCamera", {QStringLiteral("--simulate"), QStringLiteral("h264,open=ENOENT")}, 4, "no camera"},
        FailureCase{"FormatNotOffered",
                    {QStringLiteral("--simulate"), QStringLiteral("h264"), QStringLiteral("--format"),
                     QStringLiteral("yuyv")},
                    5, "offers no yuyv"},
        FailureCase{"FormatRefusedAtPlay",
                    {QStringLiteral("--simulate"), QStringLiteral("h264,sfmt=EINVAL"), QStringLiteral("--frames"),
                     QStringLiteral("1")},
                    5, "format refused"},
        FailureCase{"Unwritable",
                    {QStringLiteral("--simulate"), QStringLiteral("h264"), QStringLiteral("--output"),
                     QStringLiteral("/nonexistent/dir/out.h264")},
                    6, "cannot write"},
        FailureCase{"BuffersRefused",
                    {QStringLiteral("--simulate"), QStringLiteral("h264,qbuf=EINVAL"), QStringLiteral("--frames"),
                     QStringLiteral("1")},
                    7, "capture buffers"}),
    [](const testing::TestParamInfo<FailureCase>& info) { return std::string(info.param.name); });

// Frame numbers ffprobe reports as key frames, in decode order.
std::vector<int> keyFrames(const QString& file)
{
    QProcess p;
    p.start(QStandardPaths::findExecutable(QStringLiteral("ffprobe")),
            {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-select_streams"), QStringLiteral("v:0"),
             QStringLiteral("-show_entries"), QStringLiteral("frame=key_frame"), QStringLiteral("-of"),
             QStringLiteral("csv=p=0"), QStringLiteral("-f"), QStringLiteral("h264"), file});
    p.waitForFinished(120000);
    std::vector<int> keys;
    const QList<QByteArray> lines = p.readAllStandardOutput().split('\n');
    for (int i = 0; i < lines.size(); ++i)
        if (lines[i].trimmed() == "1")
            keys.push_back(i);
    return keys;
}

class RawRecord : public testing::TestWithParam<const char*> {};

TEST_P(RawRecord, TenSecondsOfEncodedH264WithAKeyFrameEverySixtyFrames)
{
    QTemporaryDir dir;
    const QString file = dir.filePath(QStringLiteral("out.h264"));
    const ToolRun run = camcap({QStringLiteral("--simulate"), QString::fromLatin1(GetParam()), QStringLiteral("--format"),
                                QString::fromLatin1(GetParam()), QStringLiteral("--size"), QStringLiteral("1280x720"),
                                QStringLiteral("--frames"), QStringLiteral("300"), QStringLiteral("--output"), file},
                               120000);
    ASSERT_EQ(run.exitCode, 0) << qPrintable(run.err);
    EXPECT_TRUE(run.err.contains(QStringLiteral("h264 (encoded from %1)").arg(QString::fromLatin1(GetParam()))))
        << qPrintable(run.err);
    const int decoded = decodedFrames(file, "h264");
    if (decoded < 0)
        GTEST_SKIP() << "ffprobe is not installed";
    EXPECT_EQ(decoded, 300);
    EXPECT_EQ(keyFrames(file), (std::vector<int>{0, 60, 120, 180, 240}));
}

INSTANTIATE_TEST_SUITE_P(Formats, RawRecord, testing::Values("yuyv", "nv12"));

TEST(Tool, ForcedKeyFramesReachTheCamera)
{
    QTemporaryDir dir;
    const QString file = dir.filePath(QStringLiteral("out.h264"));
    // The clip's own key frames are far apart; forced ones come every 10 frames.
    const ToolRun run = camcap({QStringLiteral("--simulate"), QStringLiteral("h264,clip=60,gop=60"),
                                QStringLiteral("--size"), QStringLiteral("640x480"), QStringLiteral("--frames"),
                                QStringLiteral("60"), QStringLiteral("--force-idr"), QStringLiteral("10"),
                                QStringLiteral("--output"), file});
    ASSERT_EQ(run.exitCode, 0) << qPrintable(run.err);
    if (QStandardPaths::findExecutable(QStringLiteral("ffprobe")).isEmpty())
        GTEST_SKIP() << "ffprobe is not installed";
    EXPECT_GE(keyFrames(file).size(), 3u);
}

TEST(Tool, ListsTheCamerasFormats)
{
    const ToolRun run = camcap({QStringLiteral("--simulate"), QStringLiteral("multi,size=640x480"),
                            QStringLiteral("--list-formats")});
    ASSERT_EQ(run.exitCode, 0) << qPrintable(run.err);
    const QString table = QString::fromUtf8(run.out);
    for (const char* line : {"mjpeg     640    480", "h264      640    480", "hevc      640    480",
                             "yuyv      640    480", "nv12      640    480"})
        EXPECT_TRUE(table.contains(QString::fromLatin1(line))) << line << "\n" << qPrintable(table);
    EXPECT_FALSE(table.contains(QStringLiteral("RGB3")));
}

TEST(Tool, InterruptStopsCleanlyWithWholeFrames)
{
    QTemporaryDir dir;
    const QString file = dir.filePath(QStringLiteral("out.mjpeg"));
    QProcess p;
    p.start(QStringLiteral(CAMCAP_PATH),
            {QStringLiteral("--simulate"), QStringLiteral("mjpeg,clip=5"), QStringLiteral("--format"),
             QStringLiteral("mjpeg"), QStringLiteral("--size"), QStringLiteral("640x480"), QStringLiteral("--duration"),
             QStringLiteral("60"), QStringLiteral("--output"), file});
    ASSERT_TRUE(p.waitForStarted());
    // Wait until frames arrive, then interrupt as a user would.
    for (int i = 0; i < 100 && QFile(file).size() == 0; ++i)
        QThread::msleep(50);
    ::kill(pid_t(p.processId()), SIGINT);
    ASSERT_TRUE(p.waitForFinished(10000));
    EXPECT_EQ(p.exitCode(), 0) << p.readAllStandardError().constData();
    QFile f(file);
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    const QByteArray bytes = f.readAll();
    ASSERT_GT(bytes.size(), 4);
    EXPECT_TRUE(bytes.startsWith("\xff\xd8"));
    EXPECT_TRUE(bytes.endsWith("\xff\xd9"));  // no frame cut short
}

TEST(Tool, StandardOutputCarriesOnlyTheStream)
{
    const ToolRun run = camcap({QStringLiteral("--simulate"), QStringLiteral("h264,clip=4,gop=4"),
                            QStringLiteral("--size"), QStringLiteral("640x480"), QStringLiteral("--frames"),
                            QStringLiteral("8"), QStringLiteral("--output"), QStringLiteral("-")});
    ASSERT_EQ(run.exitCode, 0) << qPrintable(run.err);
    ASSERT_GT(run.out.size(), 5);
    EXPECT_TRUE(run.out.startsWith(QByteArray("\0\0\0\1", 4)) || run.out.startsWith(QByteArray("\0\0\1", 3)));
}

} // namespace
