// The names camcap gives its files, and the files it must never write over.

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <cmath>

#include "ToolRun.h"

namespace {

QByteArray contents(const QString& file)
{
    QFile f(file);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray("(unreadable)");
}

// Every file listed once, present, playable, and together holding every frame recorded.
void expectEveryFrameOnce(const ToolRun& run, const QString& dir)
{
    const QStringList files = run.files();
    EXPECT_EQ(QSet<QString>(files.begin(), files.end()).size(), files.size()) << qPrintable(files.join(' '));
    int total = 0;
    for (const QString& name : files) {
        const QString f = QDir(dir).absoluteFilePath(name);
        if (!f.startsWith(dir))  // a character device
            return;
        const auto probed = probeFrames(f);
        if (!probed)
            GTEST_SKIP() << "ffprobe is not installed";
        EXPECT_GT(probed->frames, 0) << qPrintable(f);
        total += probed->frames;
    }
    EXPECT_EQ(total, run.summary().value("frames").toInt());
}

struct PatternCase : Row {
    const char* pattern;
    double segment, duration;
    const char* names;  // what every file's name must look like
    const char* first;  // the first file's name, when it is known
};

class Patterns : public testing::TestWithParam<PatternCase> {};

TEST_P(Patterns, ExpandEveryFieldIntoDistinctNamesKeepingEveryFrame)
{
    const PatternCase& c = GetParam();
    if (!kContainers)
        GTEST_SKIP() << "camcap was built without libavformat";
    QTemporaryDir dir;
    const ToolRun run = camcap({"--simulate", "h264,gop=15,clip=30", "--size", "640x480", "--segment",
                                QString::number(c.segment), "--duration", QString::number(c.duration), "--output",
                                dir.filePath(c.pattern), "--json"});
    ASSERT_EQ(run.exitCode, 0) << qPrintable(run.err);
    const QStringList files = run.files();
    EXPECT_EQ(files.size(), int(std::ceil(c.duration / c.segment)));
    const QRegularExpression names(QStringLiteral("\\A%1\\z").arg(c.names));
    for (const QString& f : files)
        EXPECT_TRUE(names.match(QFileInfo(f).fileName()).hasMatch()) << qPrintable(f);
    if (c.first && !files.isEmpty()) {
        EXPECT_EQ(QFileInfo(files.first()).fileName(), c.first);
    }
    QStringList sorted = files;
    sorted.sort();
    EXPECT_EQ(filesIn(dir.path()), sorted);
    expectEveryFrameOnce(run, dir.path());
}

INSTANTIATE_TEST_SUITE_P(
    Names, Patterns,
    testing::Values(PatternCase{"DateAndTime", "cam-%Y%m%d-%H%M%S.mkv", 1, 3.5, "cam-\\d{8}-\\d{6}(-\\d+)?\\.mkv", nullptr},
                    PatternCase{"HourOnly", "cam-%H.mkv", 1, 4, "cam-\\d\\d(-\\d)?\\.mkv", nullptr},
                    PatternCase{"TwoFilesASecond", "cam-%H%M%S.mkv", 0.5, 3, "cam-\\d{6}(-\\d)?\\.mkv", nullptr},
                    PatternCase{"Index", "rec-%03i.mkv", 1, 2.5, "rec-00\\d\\.mkv", "rec-000.mkv"},
                    PatternCase{"NoField", "rec.mkv", 1, 2.5, "rec-00\\d\\.mkv", "rec-000.mkv"}),
    RowName());

enum Plant { File, Link };  // a regular file, or a link to a file elsewhere

struct TakenCase : Row {
    const char* planted;  // nullptr: nothing
    Plant plant;
    QStringList args;     // in the directory
    int exitCode;         // -1: either way
    const char* message;
};

class Taken : public testing::TestWithParam<TakenCase> {};

TEST_P(Taken, NamesAreNeverWrittenOverNorFollowed)
{
    const TakenCase& c = GetParam();
    if (!kContainers)
        GTEST_SKIP() << "camcap was built without libavformat";
    QTemporaryDir dir, elsewhere;
    const QString planted = dir.filePath(c.planted ? c.planted : "none"), target = elsewhere.filePath("target");
    const QString earlier = c.plant == Link ? target : planted;
    const bool overwrite = c.args.contains("-y") || c.args.contains("--overwrite");
    if (c.planted) {
        QFile t(earlier);
        ASSERT_TRUE(t.open(QIODevice::WriteOnly) && t.write("earlier") == 7);
        t.close();
        ASSERT_TRUE(c.plant != Link || QFile::link(target, planted));
    }
    RunOptions options;
    options.cwd = dir.path();
    const ToolRun run = camcap(QStringList{"--simulate", "h264,gop=15", "--size", "640x480", "--json"} + c.args, options);
    if (c.exitCode >= 0) {
        EXPECT_EQ(run.exitCode, c.exitCode) << qPrintable(run.err);
    }
    EXPECT_TRUE(run.err.contains(c.message)) << qPrintable(run.err);
    if (c.planted && (c.plant == Link || !overwrite)) {
        EXPECT_EQ(contents(earlier), "earlier");
    }
    for (const QString& f : overwrite ? QStringList() : run.files())
        EXPECT_NE(QDir(dir.path()).absoluteFilePath(f), planted);
    if (run.exitCode == 0)
        expectEveryFrameOnce(run, dir.path());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Taken,
    testing::Values(
        TakenCase{"SingleFileRefused", "out.mkv", File, {"--output", "out.mkv", "--frames", "30"}, 6,
                  "exists; --overwrite replaces it"},
        TakenCase{"SingleFileReplaced", "out.mkv", File, {"--output", "out.mkv", "--frames", "30", "--overwrite"}, 0, ""},
        TakenCase{"SingleFileReplacedWithY", "out.mkv", File, {"-y", "--output", "out.mkv", "--frames", "30"}, 0, ""},
        TakenCase{"CharacterDevice", nullptr, File, {"--output", "/dev/null", "--frames", "30"}, 0, ""},
        TakenCase{"LinkToReplace", "out.mkv", Link, {"-y", "--output", "out.mkv", "--frames", "30"}, -1, ""},
        TakenCase{"SegmentOfAnEarlierRun", "rec-000.mkv", File, {"--output", "rec-%03i.mkv", "--segment", "1",
                  "--duration", "2.5"}, 0, ""},
        TakenCase{"LinkAsASegment", "rec-001.mkv", Link, {"--output", "rec-%03i.mkv", "--segment", "1", "--duration",
                  "2.5"}, 0, ""}),
    RowName());

TEST(Naming, ASegmentThatCannotBeOpenedEndsTheRun)
{
    QTemporaryDir dir;
    ASSERT_TRUE(QDir(dir.path()).mkdir("0"));  // the first file's directory, not the second's
    const ToolRun run = camcap({"--simulate", "mjpeg,clip=5", "--format", "mjpeg", "--size", "640x480", "--segment", "0.5", "--duration",
                                "3", "--output", dir.filePath("%d/rec.mjpeg")});
    EXPECT_EQ(run.exitCode, 6) << qPrintable(run.err);
    EXPECT_TRUE(run.err.contains("1/rec.mjpeg")) << qPrintable(run.err);
}

} // namespace
