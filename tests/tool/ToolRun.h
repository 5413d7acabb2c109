// Running camcap (or a shell around it) as a user would, and ffprobe's view of what it wrote.
#pragma once

#include <gtest/gtest.h>

#include <QJsonObject>
#include <QProcessEnvironment>
#include <QStringList>
#include <optional>
#include <vector>

// A table row: shown and named by its name.
struct Row {
    const char* name;
};
inline std::ostream& operator<<(std::ostream& os, const Row& row) { return os << row.name; }
struct RowName {
    template <class P>
    std::string operator()(const testing::TestParamInfo<P>& info) const { return info.param.name; }
};

inline void PrintTo(const QString& s, std::ostream* os) { *os << '"' << s.toStdString() << '"'; }

inline const bool kContainers = CAMCAP_CONTAINERS;  // camcap was built with libavformat

struct ToolRun {
    int exitCode = -1;         // -1: ended by a signal or did not end
    QByteArray out;
    QString err;
    double firstBytes = -1;    // seconds from the start to the watched file's first bytes (-1: never)
    double signalled = -1;     // seconds from the start to the signal
    double ended = 0;          // seconds from the start to the exit
    double afterFirstBytes() const { return firstBytes < 0 ? 0 : ended - firstBytes; }
    // The last JSON object on standard output (with --events, the one after the event lines).
    QJsonObject json() const;
    QJsonObject summary() const { return json().value("summary").toObject(); }
    std::vector<QJsonObject> events() const;  // every stdout line that is an object with "event"
    QStringList files() const;                // the summary's "files"
};

struct RunOptions {
    QString watch;           // file whose first bytes are timed (polled every 5 ms)
    int signal = 0;          // sent `afterMs` after the watched file's first bytes, or after the start
    int afterMs = 0;
    QString cwd;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    int timeoutMs = 120000;  // then SIGKILL
};

inline RunOptions watching(const QString& file, int signal = 0, int afterMs = 0)
{
    RunOptions options;
    options.watch = file;
    options.signal = signal;
    options.afterMs = afterMs;
    return options;
}

// The program runs in its own process group, which gets the signal.
ToolRun runProgram(const QString& program, const QStringList& args, const RunOptions& options = {});
inline ToolRun camcap(const QStringList& args, const RunOptions& options = {})
{
    return runProgram(QStringLiteral(CAMCAP_PATH), args, options);
}
inline ToolRun bash(const QString& script, const RunOptions& options = {})
{
    return runProgram(QStringLiteral("bash"), {"-o", "pipefail", "-c", script}, options);
}
QString shellQuote(const QString& word);
QString shellCommand(const QString& program, const QStringList& args);  // quoted, for a script

bool haveFfprobe();
// Decoded frames, codec, container duration (-1 when the file has none) and what ffprobe
// complained of; nothing when ffprobe is not installed.
struct Probed { int frames = 0; QString codec; double duration = -1; QString errors; };
std::optional<Probed> probeFrames(const QString& file);
// Numbers of the frames ffprobe reports as key frames, in decode order.
std::vector<int> keyFrames(const QString& file, const QStringList& limit = {});
// Whether a file's first frame is a key frame.
inline bool startsWithKeyFrame(const QString& file)
{
    return keyFrames(file, {"-read_intervals", "%+#1"}) == std::vector<int>{0};
}
QStringList filesIn(const QString& dir);  // regular files and links, absolute, sorted
