#include "Options.h"

#include <QRegularExpression>
#include <cmath>
#include <limits>


namespace {

const QStringList kContainers = {QStringLiteral("mp4"), QStringLiteral("mkv"), QStringLiteral("raw")};

const QStringList kFormats = {QStringLiteral("h264"), QStringLiteral("mjpeg"), QStringLiteral("hevc"),
                              QStringLiteral("yuyv"), QStringLiteral("nv12")};

bool takeValue(const QStringList& args, int* i, QString* value, QString* error)
{
    const QString& arg = args[*i];
    const int eq = arg.indexOf(QLatin1Char('='));
    if (eq > 0) {
        *value = arg.mid(eq + 1);
        return true;
    }
    if (*i + 1 >= args.size()) {
        *error = QStringLiteral("%1 needs a value").arg(arg);
        return false;
    }
    *value = args[++*i];
    return true;
}

// A whole number above zero: --frames 300.
template <typename T>
bool takeCount(const QStringList& args, int* i, T* out, const char* what, QString* error)
{
    QString value;
    if (!takeValue(args, i, &value, error))
        return false;
    bool ok = false;
    const qlonglong n = value.toLongLong(&ok);
    if (!ok || n <= 0 || n > std::numeric_limits<T>::max()) {
        *error = QStringLiteral("bad %1 '%2'").arg(QLatin1String(what), value);
        return false;
    }
    *out = T(n);
    return true;
}

// A time option: not negative, and short of what would overflow a count of microseconds.
bool seconds(double value) { return std::isfinite(value) && value >= 0 && value <= 1e9; }

// "WxH", both positive decimal numbers. Without a regular expression: compiling one is a
// noticeable part of the tool's start on a slow CPU.
bool parseDimensions(const QString& text, int* width, int* height)
{
    const int x = text.indexOf(QLatin1Char('x'), 0, Qt::CaseInsensitive);
    const auto number = [](const QStringRef& digits, int* out) {
        if (digits.isEmpty() || digits.size() > 9)
            return false;
        for (const QChar c : digits)
            if (c < QLatin1Char('0') || c > QLatin1Char('9'))
                return false;
        *out = digits.toInt();
        return *out > 0;
    };
    return x > 0 && number(text.leftRef(x), width) && number(text.midRef(x + 1), height);
}

// "500M", "2G", "1048576": bytes; -1 when malformed.
long long parseSize(const QString& text)
{
    const auto m = QRegularExpression(QStringLiteral("^(\\d+(?:\\.\\d+)?)([kKmMgGtT]?)$")).match(text);
    if (!m.hasMatch())
        return -1;
    const QString unit = m.captured(2).toUpper();
    const int shift = unit == QLatin1String("K") ? 10 : unit == QLatin1String("M") ? 20 : unit == QLatin1String("G") ? 30
                      : unit == QLatin1String("T") ? 40 : 0;
    const double bytes = m.captured(1).toDouble() * double(1LL << shift);
    return bytes < 9e18 ? static_cast<long long>(bytes) : -1;
}

} // namespace

QString usageText()
{
    return QStringLiteral(
        "Usage: camcap [options]\n"
        "Loads the camera element plug-in as the host does and records what it delivers.\n\n"
        "  --plugin PATH        plug-in file (default: the build tree's)\n"
        "  --list-formats       print the camera's formats and exit\n"
        "  --check              say whether the element can record from the camera here,\n"
        "                       line by line with the reason and the fix (exit 0 or 10);\n"
        "                       --format and --size choose what to check\n"
        "  --check-seconds S    length of the check's recording (default 2)\n"
        "  --format F           h264 | mjpeg | hevc (passed through) or yuyv | nv12 (encoded\n"
        "                       to H.264 by the element); default h264\n"
        "  --size WxH           capture size (default: the camera's first for the format)\n"
        "  --duration SECONDS   record this long\n"
        "  --frames N           record this many frames\n"
        "  --output FILE        .mp4 or .mkv: a container with each frame's arrival time;\n"
        "                       anything else, or '-' for standard output: the stream as\n"
        "                       delivered (Annex B or concatenated JPEG)\n"
        "  --container C        mp4 | mkv | raw, whatever the extension\n"
        "  --segment SECONDS    a new file at the first key frame at each interval\n"
        "                       FILE is a strftime pattern (as date reads it) where %i or\n"
        "                       %03i is the file's index; %d is the index only in a name\n"
        "                       with no other % field, else the day of the month; without\n"
        "                       any field -000, -001, ... goes before the extension\n"
        "  -y, --overwrite      replace a single FILE that exists (otherwise refused); other\n"
        "                       files never overwrite: a taken name gets -1, -2, ...\n"
        "  --keep-free SIZE     keep SIZE (bytes, or with K, M, G) free on the output's\n"
        "                       filesystem by removing the oldest files of FILE's pattern\n"
        "  --max-files N        keep at most N files of FILE's pattern (the oldest go)\n"
        "  --stall-timeout S    stop (exit 8) when no frame came for S seconds (default 5,\n"
        "                       10 more for the first; 0 or above 240: 240, before the\n"
        "                       element gives up on a silent camera)\n"
        "  --reconnect [S]      after an unplug or a stall wait (S seconds at most; default\n"
        "                       for ever) for the camera and record on in a new file\n"
        "  --json               print the format list and the summary as one JSON object\n"
        "  --events             print one JSON line per event (files, camera lost and back)\n"
        "  --simulate [MODEL]   run against the simulated camera (model text, default 'h264')\n"
        "  --force-idr N        ask the camera for a key frame every N frames\n"
        "  --no-progress        no live progress line\n"
        "  -v, --verbose        show the element's INFO and DEBUG lines\n"
        "  -h, --help           this text\n\n"
        "Exit codes: 0 done, 2 usage, 3 plug-in missing, 4 no camera, 5 format refused,\n"
        "6 output not writable, 7 capture setup failed, 8 camera unplugged or stopped delivering,\n"
        "9 disk full, 10 the check found the element cannot record here.\n");
}

std::optional<Options> parseOptions(const QStringList& args, QString* error)
{
    Options o;
    for (int i = 1; i < args.size(); ++i) {
        const QString arg = args[i];
        const QString name = arg.section(QLatin1Char('='), 0, 0);
        QString value;
        if (name == QLatin1String("--plugin")) {
            if (!takeValue(args, &i, &o.pluginPath, error))
                return std::nullopt;
        } else if (name == QLatin1String("--list-formats")) {
            o.listFormats = true;
        } else if (name == QLatin1String("--check")) {
            o.check = true;
        } else if (name == QLatin1String("--check-seconds")) {
            if (!takeValue(args, &i, &value, error))
                return std::nullopt;
            bool ok = false;
            o.checkSeconds = value.toDouble(&ok);
            if (!ok || !seconds(o.checkSeconds) || o.checkSeconds == 0 || o.checkSeconds > 3600) {
                *error = QStringLiteral("bad check length '%1'").arg(value);
                return std::nullopt;
            }
        } else if (name == QLatin1String("--format")) {
            if (!takeValue(args, &i, &value, error))
                return std::nullopt;
            if (!kFormats.contains(value.toLower())) {
                *error = QStringLiteral("unknown format '%1' (h264, mjpeg, hevc, yuyv, nv12)").arg(value);
                return std::nullopt;
            }
            o.format = value.toLower();
            o.formatGiven = true;
        } else if (name == QLatin1String("--size")) {
            if (!takeValue(args, &i, &value, error))
                return std::nullopt;
            if (!parseDimensions(value, &o.width, &o.height)) {
                *error = QStringLiteral("bad size '%1' (expected WxH, e.g. 1280x720)").arg(value);
                return std::nullopt;
            }
        } else if (name == QLatin1String("--duration")) {
            if (!takeValue(args, &i, &value, error))
                return std::nullopt;
            bool ok = false;
            o.durationSeconds = value.toDouble(&ok);
            if (!ok || !seconds(o.durationSeconds) || o.durationSeconds == 0) {
                *error = QStringLiteral("bad duration '%1'").arg(value);
                return std::nullopt;
            }
        } else if (name == QLatin1String("--frames")) {
            if (!takeCount(args, &i, &o.frames, "frame count", error))
                return std::nullopt;
        } else if (name == QLatin1String("--output") || name == QLatin1String("-o")) {
            if (!takeValue(args, &i, &o.output, error))
                return std::nullopt;
        } else if (name == QLatin1String("--simulate")) {
            o.simulate = true;
            if (arg.contains(QLatin1Char('=')))
                o.simulateModel = arg.section(QLatin1Char('='), 1);
            else if (i + 1 < args.size() && !args[i + 1].startsWith(QLatin1Char('-')))
                o.simulateModel = args[++i];
        } else if (name == QLatin1String("--force-idr")) {
            if (!takeCount(args, &i, &o.forceIdrEvery, "key-frame interval", error))
                return std::nullopt;
        } else if (name == QLatin1String("--stall-timeout") || name == QLatin1String("--segment")) {
            if (!takeValue(args, &i, &value, error))
                return std::nullopt;
            bool ok = false;
            const double seconds = value.toDouble(&ok);
            const bool segment = name == QLatin1String("--segment");
            if (!ok || !::seconds(seconds) || (segment && seconds == 0)) {
                *error = QStringLiteral("bad %1 '%2'").arg(segment ? "segment length" : "stall timeout", value);
                return std::nullopt;
            }
            (segment ? o.segmentSeconds : o.stallTimeout) = seconds;
        } else if (name == QLatin1String("--container")) {
            if (!takeValue(args, &i, &value, error))
                return std::nullopt;
            if (!kContainers.contains(value.toLower())) {
                *error = QStringLiteral("unknown container '%1' (mp4, mkv, raw)").arg(value);
                return std::nullopt;
            }
            o.container = value.toLower();
        } else if (name == QLatin1String("--json")) {
            o.json = true;
        } else if (name == QLatin1String("--events")) {
            o.events = true;
        } else if (name == QLatin1String("--overwrite") || name == QLatin1String("-y")) {
            o.overwrite = true;
        } else if (name == QLatin1String("--keep-free")) {
            if (!takeValue(args, &i, &value, error))
                return std::nullopt;
            o.keepFreeBytes = parseSize(value);
            if (o.keepFreeBytes <= 0) {
                *error = QStringLiteral("bad size to keep free '%1' (bytes, or with K, M, G)").arg(value);
                return std::nullopt;
            }
        } else if (name == QLatin1String("--max-files")) {
            if (!takeCount(args, &i, &o.maxFiles, "file count", error))
                return std::nullopt;
        } else if (name == QLatin1String("--reconnect")) {
            o.reconnect = true;
            // The bound is optional: a number right after it, or "=S".
            const QString next = arg.contains(QLatin1Char('=')) ? arg.section(QLatin1Char('='), 1)
                                 : i + 1 < args.size()            ? args[i + 1]
                                                                  : QString();
            bool ok = false;
            const double seconds = next.toDouble(&ok);
            if (ok && !arg.contains(QLatin1Char('=')))
                ++i;
            if ((arg.contains(QLatin1Char('=')) && !ok) || (ok && !::seconds(seconds))) {
                *error = QStringLiteral("bad reconnect wait '%1'").arg(next);
                return std::nullopt;
            }
            o.reconnectSeconds = ok ? seconds : 0;
        } else if (name == QLatin1String("--no-progress")) {
            o.progress = false;
        } else if (name == QLatin1String("-v") || name == QLatin1String("--verbose")) {
            o.verbosity = 4;
        } else {
            *error = QStringLiteral("unknown option '%1'").arg(arg);
            return std::nullopt;
        }
    }
    if (o.simulate && o.simulateModel.isEmpty())
        o.simulateModel = o.format;
    if (o.container.isEmpty()) {
        const QString ext = o.output.section(QLatin1Char('.'), -1).toLower();
        o.container = o.output.contains(QLatin1Char('.')) && kContainers.contains(ext) ? ext : QStringLiteral("raw");
    }
    const bool toStdout = o.output == QLatin1String("-");
    if (toStdout && (o.container != QLatin1String("raw") || o.segmentSeconds > 0 || o.json || o.events)) {
        *error = QStringLiteral("standard output takes only the raw stream, without --segment, --json or --events");
        return std::nullopt;
    }
    if (o.output.isEmpty() && (o.segmentSeconds > 0 || o.container != QLatin1String("raw"))) {
        *error = QStringLiteral("--segment and --container need --output");
        return std::nullopt;
    }
    if ((toStdout || o.output.isEmpty()) && o.retention()) {
        *error = QStringLiteral("--keep-free and --max-files need an output file");
        return std::nullopt;
    }
    return o;
}
