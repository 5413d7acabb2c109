// Every camcap example of the README, run as a user would, against the simulated camera.

#include <gtest/gtest.h>

#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <csignal>

#include "ToolRun.h"

namespace {

struct Example {
    int line;
    QString command;
};

// The command lines in the sh blocks of the README's camcap section.
std::vector<Example> readmeExamples()
{
    std::vector<Example> examples;
    QFile readme(QStringLiteral(README_PATH));
    if (!readme.open(QIODevice::ReadOnly | QIODevice::Text))
        return examples;
    bool section = false, fence = false, sh = false;
    int number = 0;
    while (!readme.atEnd()) {
        const QString line = QString::fromUtf8(readme.readLine()).trimmed();
        ++number;
        if (line.startsWith("## ")) {
            section = line == "## The host tool: camcap";
        } else if (line.startsWith("```")) {
            sh = !fence && line == "```sh";
            fence = !fence;
        } else if (section && sh && (line.startsWith("camcap ") || line.startsWith("build/bin/camcap "))) {
            examples.push_back({number, line});
        }
    }
    return examples;
}

// When an example is interrupted: after 6 s, or when it would have ended by itself, if that
// is soon (Ctrl-C would also stop the rest of its pipeline).
int interruptAfterMs(const QString& command)
{
    // A check ends by itself, in a sanitizer build only after several seconds.
    if (command.contains(QLatin1String("--check")))
        return 60000;
    const QRegularExpressionMatch frames = QRegularExpression("--frames (\\d+)").match(command);
    const QRegularExpressionMatch duration = QRegularExpression("--duration ([\\d.]+)").match(command);
    const double own = frames.hasMatch() ? frames.captured(1).toDouble() / 30 : duration.captured(1).toDouble();
    return own > 6 && own < 15 ? int(own * 1000) + 5000 : 6000;
}

TEST(ReadmeExamples, EachRunsAndLeavesOnlyPlayableFiles)
{
    if (!kContainers)
        GTEST_SKIP() << "the examples write .mp4 and .mkv files: camcap was built without libavformat";
    const std::vector<Example> examples = readmeExamples();
    ASSERT_GE(examples.size(), 3u) << "no examples found in " << README_PATH;
    for (const Example& e : examples) {
        SCOPED_TRACE(QStringLiteral("README.md:%1: %2").arg(e.line).arg(e.command).toStdString());
        const QString command = QString(e.command).remove(QRegularExpression("^build/bin/"));
        const QRegularExpressionMatch format = QRegularExpression("--format (\\S+)").match(command);
        const QString script = QStringLiteral("camcap() { %1 --simulate %2 \"$@\"; }\n"
                                              "ffplay() { ffmpeg -v error \"$@\" -f null -; }\n%3\n")
                                   .arg(shellQuote(CAMCAP_PATH), format.hasMatch() ? format.captured(1) : "h264", command);
        QTemporaryDir dir;
        RunOptions options;
        options.cwd = dir.path();
        options.signal = SIGINT;
        options.afterMs = interruptAfterMs(command);
        options.timeoutMs = options.afterMs + 20000;
        const ToolRun run = bash(script, options);
        EXPECT_EQ(run.exitCode, 0) << qPrintable(run.err);
        for (const QString& f : filesIn(dir.path())) {
            const auto probed = probeFrames(f);
            EXPECT_GT(probed ? probed->frames : 1, 0) << qPrintable(f);
        }
    }
}

} // namespace
