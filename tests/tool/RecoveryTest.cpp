// What camcap keeps when it is killed, the disk fills, the reader goes or the camera goes.

#include <gtest/gtest.h>
#include <unistd.h>

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <csignal>
#include <random>

#include "ToolRun.h"

namespace {

bool slowEmulator() { return qEnvironmentVariableIsSet("ARMHF_QEMU"); }

struct KillCase : Row {
    const char* model;  // its first word is the format asked for
    const char* file;
};

class Killed : public testing::TestWithParam<KillCase> {};

// The file's first bytes come with the first frame; a frame that arrived more than a second
// before the kill is on disk in a complete fragment or cluster.
TEST_P(Killed, KeepsEveryFrameThatArrivedASecondBeforeTheKill)
{
    const KillCase& c = GetParam();
    if (!kContainers || !haveFfprobe())
        GTEST_SKIP() << "needs camcap with libavformat, and ffprobe";
    std::mt19937 seed(20240611);
    std::uniform_int_distribution<int> moment(1500, 5000);
    for (int i = 0; i < 10; ++i) {
        QTemporaryDir dir;
        const QString file = dir.filePath(c.file);
        const int afterMs = moment(seed);
        SCOPED_TRACE(afterMs);
        const ToolRun run = camcap({"--simulate", c.model, "--format", QString(c.model).section(',', 0, 0), "--size",
                                    "640x480", "--output", file}, watching(file, SIGKILL, afterMs));
        ASSERT_GE(run.firstBytes, 0) << qPrintable(run.err);
        ASSERT_GE(run.signalled, 0) << qPrintable(run.err);
        EXPECT_GE(probeFrames(file)->frames, int(30 * (run.signalled - run.firstBytes - 1)) - 1);
    }
}

INSTANTIATE_TEST_SUITE_P(Containers, Killed,
                         testing::Values(KillCase{"H264Mp4", "h264,gop=30,clip=60", "out.mp4"},
                                         KillCase{"H264Mkv", "h264,gop=30,clip=60", "out.mkv"},
                                         KillCase{"MjpegMp4", "mjpeg", "out.mp4"}),
                         RowName());

struct FullCase : Row {
    int kib;            // the filesystem's size
    QStringList args;   // run in it
    int exitCode;
    int maxFiles = 0;   // at most this many recorded files remain
};

class FullDisk : public testing::TestWithParam<FullCase> {};

// A small tmpfs in a private mount namespace, holding another file of the same kind that
// is not camcap's; what the run leaves there is copied out before the namespace goes.
TEST_P(FullDisk, LeavesPlayableFilesAndGoesOnOnlyWithRetention)
{
    const FullCase& c = GetParam();
    if (::getuid() != 0 || runProgram("unshare", {"-m", "true"}).exitCode != 0)
        GTEST_SKIP() << "needs root and unshare -m";
    if (!kContainers || !haveFfprobe())
        GTEST_SKIP() << "needs camcap with libavformat, and ffprobe";
    QTemporaryDir mountPoint, left;
    const QString script = QStringLiteral("mount -t tmpfs -o size=%1k tmpfs %2 || exit 97\n"
                                          "cd %2 && head -c 20000 /dev/zero > other.mkv || exit 97\n"
                                          "%3\nrc=$?\ncp -a . %4 && exit $rc\n")
                               .arg(c.kib)
                               .arg(shellQuote(mountPoint.path()),
                                    shellCommand(CAMCAP_PATH, QStringList{"--simulate", "h264,gop=15", "--size",
                                                                          "640x480", "--json"} + c.args),
                                    shellQuote(left.path()));
    const ToolRun run = runProgram("unshare", {"-m", "sh", "-c", script});
    if (run.exitCode == 97)
        GTEST_SKIP() << "cannot mount a tmpfs: " << qPrintable(run.err);
    EXPECT_EQ(run.exitCode, c.exitCode) << qPrintable(run.err);
    EXPECT_EQ(run.err.count("disk full"), c.exitCode == 9 ? 1 : 0) << qPrintable(run.err);
    EXPECT_EQ(run.err.contains(QRegularExpression("^camcap: disk full", QRegularExpression::MultilineOption)),
              c.exitCode == 9);
    EXPECT_EQ(QFileInfo(left.filePath("other.mkv")).size(), 20000);
    // What is left of camcap's: the files it recorded less those it removed, all of them its own.
    QSet<QString> kept;
    for (const QString& f : run.files())
        kept << QFileInfo(f).fileName();
    const QJsonArray removed = run.summary().value("removed").toArray();
    for (const QJsonValue& f : removed) {
        EXPECT_TRUE(QFileInfo(f.toString()).fileName().startsWith("rec-")) << qPrintable(f.toString());
        kept.remove(QFileInfo(f.toString()).fileName());
    }
    EXPECT_EQ(removed.isEmpty(), c.exitCode == 9);
    QSet<QString> there;
    for (const QString& f : filesIn(left.path()))
        if (!f.endsWith("/other.mkv")) {
            there << QFileInfo(f).fileName();
            const auto probed = probeFrames(f);
            EXPECT_GT(probed->frames, 0) << qPrintable(f);
            EXPECT_EQ(probed->errors, "") << qPrintable(f);
            // Cut back to its last complete fragment, at most half a second short.
            if (c.exitCode == 9) {
                EXPECT_GT(QFileInfo(f).size(), (c.kib * 1024 - 20000) * 6 / 10);
            }
        }
    EXPECT_EQ(there, kept);
    EXPECT_TRUE(!c.maxFiles || there.size() <= c.maxFiles) << there.size();
}

INSTANTIATE_TEST_SUITE_P(
    Retention, FullDisk,
    testing::Values(FullCase{"None", 300, {"--output", "rec.mkv", "--duration", "20"}, 9},
                    FullCase{"MaxFiles", 300, {"--output", "rec-%03i.mkv", "--segment", "1", "--max-files", "3",
                             "--duration", "8"}, 0, 3},
                    FullCase{"KeepFree", 512, {"--output", "rec-%03i.mkv", "--segment", "1", "--keep-free", "200K",
                             "--duration", "8"}, 0}),
    RowName());

struct LostCase : Row {
    const char* model;
    const char* stallTimeout;
    const char* message;  // a pattern
    int minFrames;      // 0: none ever came, and no file is left
};

class LostCamera : public testing::TestWithParam<LostCase> {};

TEST_P(LostCamera, EndsSayingWhyOnceWithAPlayableFileOrNone)
{
    const LostCase& c = GetParam();
    QTemporaryDir dir;
    const QString file = dir.filePath(kContainers ? "out.mkv" : "out.h264");
    const ToolRun run = camcap({"--simulate", c.model, "--size", "640x480", "--stall-timeout", c.stallTimeout,
                                "--output", file, "--json"}, watching(file));
    EXPECT_EQ(run.exitCode, 8) << qPrintable(run.err);
    EXPECT_TRUE(run.err.contains(QRegularExpression(c.message))) << qPrintable(run.err);
    // The element's log lines come once each, with the failure they explain.
    const QStringList lines = run.err.split('\n', Qt::SkipEmptyParts);
    EXPECT_EQ(QSet<QString>(lines.begin(), lines.end()).size(), lines.size()) << qPrintable(run.err);
    // The loss comes a second in; then the stall timeout, with a second to spare.
    EXPECT_LT(run.afterFirstBytes(), slowEmulator() ? 60 : 1.0 + QString(c.stallTimeout).toDouble() + 2);
    if (!c.minFrames) {
        EXPECT_EQ(run.files(), QStringList());
        EXPECT_EQ(filesIn(dir.path()), QStringList());
        return;
    }
    const auto probed = probeFrames(file);
    if (!probed)
        GTEST_SKIP() << "ffprobe is not installed";
    EXPECT_EQ(probed->frames, run.summary().value("frames").toInt());
    EXPECT_GE(probed->frames, c.minFrames);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, LostCamera,
    testing::Values(LostCase{"Unplugged", "h264,gop=5,unplug=30", "2", "camcap: camera unplugged", 29},
                    LostCase{"UnpluggedWithoutTimeout", "h264,gop=5,unplug=30", "0", "camcap: camera unplugged", 29},
                    LostCase{"Stopped", "h264,gop=5,stallafter=30", "2",
                             "camcap: camera stopped delivering \\(no frame for [23]\\.\\d s\\)", 29},
                    LostCase{"NeverStarted", "h264,stall", "1", "camcap: the camera delivered no frame in 11\\.\\d s", 0}),
    RowName());

TEST(Recovery, AReaderThatGoesEndsTheRunWithASummaryAndNoLeftovers)
{
    if (slowEmulator())
        GTEST_SKIP() << "the host's shell cannot start the ARM camcap of a pipeline";
    QTemporaryDir tmp;
    RunOptions options;
    options.env.insert("TMPDIR", tmp.path());
    const ToolRun run = bash(shellCommand(CAMCAP_PATH, {"--simulate", "h264", "--size", "640x480", "--duration", "20",
                                                        "--output", "-"}) + " | head -c 1000 >/dev/null", options);
    EXPECT_EQ(run.exitCode, 6) << qPrintable(run.err);
    EXPECT_TRUE(run.err.contains("summary")) << qPrintable(run.err);
    EXPECT_LT(run.ended, 15);
    EXPECT_EQ(QDir(tmp.path()).entryList({"simcam-*"}, QDir::AllEntries | QDir::Hidden | QDir::System), QStringList());
}

struct ReconnectCase : Row {
    const char* model;
    QStringList args;
    const char* why;
    double minGap;
};

class Reconnect : public testing::TestWithParam<ReconnectCase> {};

TEST_P(Reconnect, GoesOnInANewFileAndSaysWhatHappened)
{
    const ReconnectCase& c = GetParam();
    if (!kContainers || !haveFfprobe())
        GTEST_SKIP() << "needs camcap with libavformat, and ffprobe";
    QTemporaryDir dir;
    RunOptions options;
    options.cwd = dir.path();
    options.timeoutMs = 40000;
    const ToolRun run = camcap(QStringList{"--simulate", c.model, "--size", "640x480", "--frames", "120", "--output",
                                           "rec.mkv", "--json", "--events"} + c.args, options);
    ASSERT_EQ(run.exitCode, 0) << qPrintable(run.err);
    EXPECT_TRUE(run.err.contains("camcap: camera lost; waiting for it")) << qPrintable(run.err);
    EXPECT_TRUE(run.err.contains("camcap: camera back on /dev/video")) << qPrintable(run.err);

    const QJsonArray gaps = run.summary().value("gaps").toArray();
    ASSERT_FALSE(gaps.isEmpty());
    const QJsonObject gap = gaps.first().toObject();
    EXPECT_EQ(gap.value("why").toString(), c.why);
    const QRegularExpression iso("\\A\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d");
    EXPECT_TRUE(iso.match(gap.value("lost").toString()).hasMatch()) << qPrintable(gap.value("lost").toString());
    EXPECT_TRUE(iso.match(gap.value("back").toString()).hasMatch()) << qPrintable(gap.value("back").toString());
    EXPECT_GE(gap.value("seconds").toDouble(), c.minGap);
    EXPECT_LT(gap.value("seconds").toDouble(), c.minGap + 5);

    // One object a line; each closed file is what it says, and the frames count over the run.
    const QList<QByteArray> lines = run.out.trimmed().split('\n');
    for (const QByteArray& line : lines)
        EXPECT_TRUE(QJsonDocument::fromJson(line).isObject()) << line.constData();
    EXPECT_TRUE(QJsonDocument::fromJson(lines.last()).object().contains("summary")) << "the summary comes last";
    QStringList kinds;
    int total = 0;
    for (const QJsonObject& e : run.events()) {
        kinds << e.value("event").toString();
        EXPECT_TRUE(e.value("time").isString()) << qPrintable(kinds.last());
        if (kinds.last() == "file-closed") {
            const int frames = probeFrames(dir.filePath(e.value("file").toString()))->frames;
            EXPECT_GT(frames, 0);
            EXPECT_EQ(frames, e.value("frames").toInt()) << qPrintable(e.value("file").toString());
            total += frames;
        }
        if (kinds.last() == "camera-back") {
            EXPECT_TRUE(e.value("node").toString().startsWith("/dev/video"));
        }
    }
    EXPECT_EQ(total, 120);
    EXPECT_EQ(run.summary().value("frames").toInt(), 120);
    EXPECT_GE(run.files().size(), 2);
    EXPECT_EQ(kinds.count("file-opened"), run.files().size());
    EXPECT_EQ(kinds.count("file-closed"), run.files().size());
    EXPECT_EQ(kinds.count("camera-back"), gaps.size());
    EXPECT_LT(kinds.indexOf("camera-lost"), kinds.indexOf("camera-back"));
    EXPECT_GE(kinds.indexOf("camera-lost"), 0) << qPrintable(kinds.join(' '));
}

INSTANTIATE_TEST_SUITE_P(
    After, Reconnect,
    testing::Values(ReconnectCase{"Unplug", "h264,gop=30,unplug=45,replug=1500", {"--reconnect"}, "unplugged", 1.0},
                    ReconnectCase{"Stall", "h264,gop=30,stallafter=45", {"--stall-timeout", "1", "--reconnect", "10"},
                                  "stalled", 0}),
    RowName());

} // namespace
