#include "ExternalTools.h"

#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QStringList>

namespace codectest {

namespace {
std::optional<QByteArray> run(const QString& program, const QStringList& args)
{
    QProcess process;
    process.start(program, args);
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0)
        return std::nullopt;
    return process.readAllStandardOutput();
}
} // namespace

bool haveTool(const char* name)
{
    return !QStandardPaths::findExecutable(name).isEmpty();
}

bool writeFile(const QString& path, const std::vector<uint8_t>& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) &&
           file.write(reinterpret_cast<const char*>(bytes.data()), qint64(bytes.size())) ==
               qint64(bytes.size());
}

std::optional<ProbeResult> probeH264(const QString& file)
{
    const auto out = run("ffprobe", {"-v", "error", "-count_frames", "-select_streams", "v:0",
                                     "-show_entries", "stream=nb_read_frames,width,height,profile",
                                     "-of", "default=noprint_wrappers=1", "-f", "h264", file});
    if (!out)
        return std::nullopt;
    // key=value lines: ffprobe orders the entries its own way.
    ProbeResult r;
    int found = 0;
    for (const QString& line : QString::fromUtf8(*out).split('\n', Qt::SkipEmptyParts)) {
        const QString key = line.section('=', 0, 0), value = line.section('=', 1).trimmed();
        if (key == "width")
            r.width = value.toInt();
        else if (key == "height")
            r.height = value.toInt();
        else if (key == "profile")
            r.profile = value.toStdString();
        else if (key == "nb_read_frames")
            r.frames = value.toInt();
        else
            continue;
        ++found;
    }
    if (found != 4)
        return std::nullopt;
    return r;
}

std::optional<std::vector<uint8_t>> decodeH264ToI420(const QString& file)
{
    const QString raw = file + ".yuv";
    if (!run("ffmpeg", {"-v", "error", "-y", "-f", "h264", "-i", file, "-f", "rawvideo", "-pix_fmt",
                        "yuv420p", raw}))
        return std::nullopt;
    QFile in(raw);
    if (!in.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QByteArray bytes = in.readAll();
    return std::vector<uint8_t>(bytes.begin(), bytes.end());
}

} // namespace codectest
