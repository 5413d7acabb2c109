#include "ToolRun.h"

#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QStandardPaths>
#include <csignal>

namespace {

// Its own process group, so that a signal reaches a whole pipeline as Ctrl-C would.
class GroupProcess : public QProcess {
protected:
    void setupChildProcess() override { ::setpgid(0, 0); }
};

double seconds(const QElapsedTimer& clock) { return double(clock.nsecsElapsed()) / 1e9; }

QJsonObject probe(const QString& file, const QStringList& what, QString* errors = nullptr)
{
    QProcess p;
    p.start(QStringLiteral("ffprobe"), QStringList{"-v", "error", "-select_streams", "v:0", "-of", "json"} + what + QStringList{file});
    p.waitForFinished(120000);
    if (errors)
        *errors = QString::fromUtf8(p.readAllStandardError());
    return QJsonDocument::fromJson(p.readAllStandardOutput()).object();
}

} // namespace

ToolRun runProgram(const QString& program, const QStringList& args, const RunOptions& options)
{
    ToolRun run;
    GroupProcess p;
    p.setProcessEnvironment(options.env);
    if (!options.cwd.isEmpty())
        p.setWorkingDirectory(options.cwd);
    QElapsedTimer clock;
    clock.start();
    p.start(program, args);
    if (!p.waitForStarted()) {
        run.err = p.errorString();
        return run;
    }
    const pid_t group = pid_t(p.processId());
    const QByteArray watch = QFile::encodeName(options.watch);
    double signalAt = options.signal && watch.isEmpty() ? options.afterMs / 1000.0 : -1;
    while (p.state() != QProcess::NotRunning && seconds(clock) * 1000 < options.timeoutMs) {
        struct stat st {};
        if (!watch.isEmpty() && run.firstBytes < 0 && ::stat(watch.constData(), &st) == 0 && st.st_size > 0) {
            run.firstBytes = seconds(clock);
            if (options.signal)
                signalAt = run.firstBytes + options.afterMs / 1000.0;
        }
        if (signalAt >= 0 && run.signalled < 0 && seconds(clock) >= signalAt) {
            ::kill(-group, options.signal);
            run.signalled = seconds(clock);
        }
        p.waitForFinished(5);  // also reads the pipes, so the program never blocks on them
    }
    run.ended = seconds(clock);
    if (p.state() != QProcess::NotRunning) {
        ::kill(-group, SIGKILL);
        p.waitForFinished(10000);
    } else if (p.exitStatus() == QProcess::NormalExit) {
        run.exitCode = p.exitCode();
    }
    run.out = p.readAllStandardOutput();
    run.err = QString::fromUtf8(p.readAllStandardError());
    return run;
}

QJsonObject ToolRun::json() const
{
    const QList<QByteArray> lines = out.trimmed().split('\n');
    if (const QJsonDocument whole = QJsonDocument::fromJson(out); whole.isObject())
        return whole.object();
    for (auto line = lines.rbegin(); line != lines.rend(); ++line)
        if (const QJsonDocument d = QJsonDocument::fromJson(*line); d.isObject() && !d.object().contains("event"))
            return d.object();
    return {};
}

std::vector<QJsonObject> ToolRun::events() const
{
    std::vector<QJsonObject> events;
    for (const QByteArray& line : out.split('\n'))
        if (const QJsonObject o = QJsonDocument::fromJson(line).object(); o.contains("event"))
            events.push_back(o);
    return events;
}

QStringList ToolRun::files() const
{
    QStringList files;
    for (const QJsonValue& f : summary().value("files").toArray())
        files << f.toString();
    return files;
}

QString shellQuote(const QString& word)
{
    return '\'' + QString(word).replace('\'', QLatin1String("'\\''")) + '\'';
}

QString shellCommand(const QString& program, const QStringList& args)
{
    QStringList words{shellQuote(program)};
    for (const QString& a : args)
        words << shellQuote(a);
    return words.join(' ');
}

bool haveFfprobe()
{
    static const bool found = !QStandardPaths::findExecutable(QStringLiteral("ffprobe")).isEmpty();
    return found;
}

std::optional<Probed> probeFrames(const QString& file)
{
    if (!haveFfprobe())
        return std::nullopt;
    QString errors;
    const QJsonObject o = probe(file, {"-count_frames", "-show_entries", "stream=codec_name,nb_read_frames:format=duration"}, &errors);
    const QJsonObject s = o.value("streams").toArray().at(0).toObject();
    const QJsonValue d = o.value("format").toObject().value("duration");
    return Probed{s.value("nb_read_frames").toString().toInt(), s.value("codec_name").toString(),
                  d.isUndefined() ? -1 : d.toString().toDouble(), errors};
}

std::vector<int> keyFrames(const QString& file, const QStringList& limit)
{
    std::vector<int> keys;
    const QJsonArray list = probe(file, QStringList{"-show_entries", "frame=key_frame"} + limit).value("frames").toArray();
    for (int i = 0; i < list.size(); ++i)
        if (list[i].toObject().value("key_frame").toInt() == 1)
            keys.push_back(i);
    return keys;
}

QStringList filesIn(const QString& dir)
{
    QStringList files;
    for (const QFileInfo& f : QDir(dir).entryInfoList(QDir::Files | QDir::System | QDir::Hidden, QDir::Name))
        files << f.absoluteFilePath();
    return files;
}
