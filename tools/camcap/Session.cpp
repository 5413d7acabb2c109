#include "Session.h"

#include <fcntl.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMetaObject>
#include <QSocketNotifier>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "CameraNode.h"
#include "FrameSink.h"
#include "IMediaElement.h"
#include "Logger.h"
#include "MediaPin.h"
#include "Recorder.h"
#include "SegmentWriter.h"

namespace {

// SIGINT and SIGTERM reach the event loop through a pipe.
volatile std::sig_atomic_t g_signalWrite = -1;
void onSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] ssize_t n = ::write(g_signalWrite, &byte, 1);
}

struct CodecName {
    int codec;
    const char* name;
    uint32_t fourcc;
};
const CodecName kCodecNames[] = {{CODEC_TYPE_H264, "h264", 0x34363248}, {CODEC_TYPE_HEVC, "hevc", 0x43564548},
                                 {CODEC_TYPE_MJPEG, "mjpeg", 0x47504a4d}, {CODEC_TYPE_YUYV, "yuyv", 0x56595559},
                                 {CODEC_TYPE_NV12, "nv12", 0x3231564e}};

const CodecName* codecEntry(int codec)
{
    for (const CodecName& c : kCodecNames)
        if (c.codec == codec)
            return &c;
    return nullptr;
}

QString codecName(int codec)
{
    const CodecName* c = codecEntry(codec);
    return c ? QString::fromLatin1(c->name) : QString::number(codec);
}

int codecOf(const QString& name)
{
    for (const CodecName& c : kCodecNames)
        if (name == QLatin1String(c.name))
            return c.codec;
    return -1;
}

bool offers(const QList<MediaFormat>& formats, int codec, int w, int h)
{
    for (const MediaFormat& f : formats)
        if (f.codecType == codec && f.width == w && f.height == h)
            return true;
    return false;
}

constexpr int64_t kStartupGraceUs = 10000000;

// The element answers an H.264 request with the first of these the camera has at the size.
const int kNegotiationOrder[] = {CODEC_TYPE_H264, CODEC_TYPE_NV12, CODEC_TYPE_YUYV, CODEC_TYPE_MJPEG};

// "it offers hevc, mjpeg", for a refusal to point the user at what would work.
QString offered(const QList<MediaFormat>& formats)
{
    QStringList codecs;
    for (const MediaFormat& f : formats) {
        if (!codecs.contains(codecName(f.codecType)))
            codecs << codecName(f.codecType);
    }
    return QStringLiteral("it offers %1; --list-formats shows the sizes").arg(codecs.join(QStringLiteral(", ")));
}

} // namespace

Session::Session(IMediaElement* element, const Options& options) : m_element(element), m_options(options) {}

Session::~Session()
{
    if (m_signalWrite) {
        std::signal(SIGINT, SIG_DFL);
        std::signal(SIGTERM, SIG_DFL);
        g_signalWrite = -1;
    }
}

QJsonArray Session::formatList(const QList<MediaFormat>& formats) const
{
    QJsonArray list;
    for (const MediaFormat& f : formats) {
        const CodecName* c = codecEntry(f.codecType);
        const QStringList rates = c ? m_node->frameRates(c->fourcc, f.width, f.height) : QStringList();
        list.append(QJsonObject{{QStringLiteral("codec"), codecName(f.codecType)},
                                {QStringLiteral("width"), f.width},
                                {QStringLiteral("height"), f.height},
                                {QStringLiteral("fps"), QJsonArray::fromStringList(rates)}});
    }
    return list;
}

int Session::listFormats(const QList<MediaFormat>& formats)
{
    if (formats.isEmpty()) {
        std::fprintf(stderr, "camcap: no camera found\n");
        return EXIT_NO_CAMERA;
    }
    if (m_options.json) {
        std::printf("%s", QJsonDocument(QJsonObject{{QStringLiteral("formats"), m_formats}}).toJson().constData());
        return EXIT_OK;
    }
    std::printf("%-6s %6s %6s  %s\n", "codec", "width", "height", "fps");
    for (const QJsonValue& v : m_formats) {
        const QJsonObject f = v.toObject();
        QStringList rates;
        for (const QJsonValue& r : f.value(QStringLiteral("fps")).toArray())
            rates << r.toString();
        std::printf("%-6s %6d %6d  %s\n", qPrintable(f.value(QStringLiteral("codec")).toString()),
                    f.value(QStringLiteral("width")).toInt(), f.value(QStringLiteral("height")).toInt(),
                    qPrintable(rates.join(QStringLiteral(", "))));
    }
    return EXIT_OK;
}

int Session::chooseFormat(const QList<MediaFormat>& formats)
{
    const int wanted = codecOf(m_options.format);
    if (m_options.width == 0) {
        for (const MediaFormat& f : formats) {
            if (f.codecType == wanted) {
                m_options.width = f.width;
                m_options.height = f.height;
                break;
            }
        }
        if (m_options.width == 0) {
            std::fprintf(stderr, "camcap: the camera offers no %s format (%s)\n", qPrintable(m_options.format),
                         qPrintable(offered(formats)));
            return EXIT_FORMAT_REFUSED;
        }
    }
    const int w = m_options.width, h = m_options.height;
    if (wanted == CODEC_TYPE_MJPEG || wanted == CODEC_TYPE_HEVC) {
        m_codec = m_deliveredCodec = wanted;
        m_delivered = m_options.format;
        if (!offers(formats, wanted, w, h))
            std::fprintf(stderr, "camcap: note: the camera does not list %s at %dx%d\n",
                         qPrintable(m_options.format), w, h);
        return EXIT_OK;
    }
    // H.264, YUYV and NV12 all go through the element's H.264 negotiation.
    m_codec = CODEC_TYPE_H264;
    if (wanted != CODEC_TYPE_H264 && !offers(formats, wanted, w, h)) {
        std::fprintf(stderr, "camcap: the camera does not offer %s at %dx%d (%s)\n", qPrintable(m_options.format), w, h,
                     qPrintable(offered(formats)));
        return EXIT_FORMAT_REFUSED;
    }
    for (int codec : kNegotiationOrder) {
        if (offers(formats, codec, w, h)) {
            m_deliveredCodec = codec == CODEC_TYPE_MJPEG ? CODEC_TYPE_MJPEG : CODEC_TYPE_H264;
            m_delivered = codec == CODEC_TYPE_MJPEG || codec == CODEC_TYPE_H264
                              ? codecName(codec)
                              : QStringLiteral("h264 (encoded from %1)").arg(codecName(codec));
            if (codec != wanted && wanted != CODEC_TYPE_H264)
                std::fprintf(stderr, "camcap: note: the camera also offers %s at %dx%d, which the element prefers\n",
                             qPrintable(codecName(codec)), w, h);
            return EXIT_OK;
        }
    }
    std::fprintf(stderr, "camcap: the camera offers no h264, nv12, yuyv or mjpeg at %dx%d (%s)\n", w, h,
                 qPrintable(offered(formats)));
    return EXIT_FORMAT_REFUSED;
}

int Session::applyFormat()
{
    MediaFormat format;
    format.codecType = m_codec;
    format.width = m_options.width;
    format.height = m_options.height;
    if (m_codec == CODEC_TYPE_H264) {
        registerMediaFormatMetaTypes();
        return m_element->setAttribute(ATTR_CAM_SETFORMAT, QVariant::fromValue(format)) == 0 ? EXIT_OK
                                                                                            : EXIT_FORMAT_REFUSED;
    }
    MediaOutputPin* pin = m_element->getOutputPinList().value(0);
    return m_element->activeOutPin(pin, format) == 0 ? EXIT_OK : EXIT_FORMAT_REFUSED;
}

int Session::openOutput()
{
    if (m_options.output.isEmpty())
        return EXIT_OK;
    const StreamInfo info{m_options.container, m_deliveredCodec, m_options.width, m_options.height};
    QString error;
    if (m_options.segmentSeconds > 0) {
        auto segments = std::make_unique<SegmentWriter>(m_options.output, m_options.segmentSeconds, info);
        if (segments->open(&error))
            m_sink = std::move(segments);
    } else {
        m_sink = openSink(m_options.output, info, &error);
    }
    if (!m_sink) {
        std::fprintf(stderr, "camcap: cannot write %s: %s\n", qPrintable(m_options.output), qPrintable(error));
        return EXIT_OUTPUT;
    }
    return EXIT_OK;
}

int Session::classifyPlayFailure() const
{
    if (m_log->contains("dev open failed"))
        return EXIT_NO_CAMERA;
    if (m_log->contains("set format failed"))
        return EXIT_FORMAT_REFUSED;
    return EXIT_SETUP_FAILED;
}

QString Session::outputName() const
{
    return m_options.output == QLatin1String("-") ? QStringLiteral("stdout") : m_options.output;
}

int Session::run()
{
    m_element->initialize();
    m_element->start();

    const QList<MediaFormat> formats = m_element->getAttribute(ATTR_CAM_FORMATLIST).value<QList<MediaFormat>>();
    m_node = std::make_unique<CameraNode>();
    m_formats = formatList(formats);
    if (m_options.listFormats)
        return listFormats(formats);
    if (formats.isEmpty()) {
        std::fprintf(stderr, "camcap: no camera found\n");
        return EXIT_NO_CAMERA;
    }
    if (int code = chooseFormat(formats))
        return code;
    if (applyFormat() != EXIT_OK) {
        std::fprintf(stderr, "camcap: the element refused %s at %dx%d\n", qPrintable(m_options.format),
                     m_options.width, m_options.height);
        return EXIT_FORMAT_REFUSED;
    }
    if (int code = openOutput())
        return code;

    Recorder::Events events;
    events.firstFrame = [this] {
        QMetaObject::invokeMethod(&m_context, [this] {
            if (m_options.durationSeconds > 0)
                m_durationTimer.start(int(m_options.durationSeconds * 1000));
        }, Qt::QueuedConnection);
    };
    events.done = [this] {
        QMetaObject::invokeMethod(&m_context, [this] {
            if (m_recorder->writeFailed()) {
                std::fprintf(stderr, "camcap: writing %s failed: %s\n", qPrintable(outputName()),
                             qPrintable(m_sink->error()));
                finish(EXIT_OUTPUT, QStringLiteral("write failed"));
            } else {
                finish(EXIT_OK, QStringLiteral("frames"));
            }
        }, Qt::QueuedConnection);
    };
    if (m_options.forceIdrEvery > 0) {
        events.keyFrameEvery = m_options.forceIdrEvery;
        events.keyFrameDue = [node = m_node.get()] { node->requestKeyFrame(); };
    }
    m_recorder = std::make_unique<Recorder>(m_element->getOutputPinList().value(0), m_sink.get(), m_deliveredCodec,
                                            m_options.frames, std::move(events));
    m_log = std::make_unique<LogCapture>();
    m_playUs = Recorder::nowUs();
    if (m_element->play() != 0) {
        const int code = classifyPlayFailure();
        m_recorder.reset();
        std::fprintf(stderr, "camcap: play failed (%s)\n",
                     code == EXIT_NO_CAMERA ? "camera could not be opened"
                     : code == EXIT_FORMAT_REFUSED ? "format refused by the camera"
                                                   : "capture buffers could not be set up");
        return code;
    }
    std::fprintf(stderr, "camcap: recording %s %dx%d%s%s\n", qPrintable(m_delivered), m_options.width,
                 m_options.height, m_sink ? " to " : "", m_sink ? qPrintable(outputName()) : "");
    arm();
    return QCoreApplication::exec();
}

void Session::arm()
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) {
        m_signalRead.reset(fds[0]);
        m_signalWrite.reset(fds[1]);
        g_signalWrite = fds[1];
        m_signalNotifier = std::make_unique<QSocketNotifier>(fds[0], QSocketNotifier::Read);
        QObject::connect(m_signalNotifier.get(), &QSocketNotifier::activated, &m_context,
                         [this] { finish(EXIT_OK, QStringLiteral("interrupted")); });
        std::signal(SIGINT, onSignal);
        std::signal(SIGTERM, onSignal);
    }
    m_durationTimer.setSingleShot(true);
    m_durationTimer.setTimerType(Qt::PreciseTimer);
    QObject::connect(&m_durationTimer, &QTimer::timeout, &m_context,
                     [this] { finish(EXIT_OK, QStringLiteral("duration")); });
    if (m_options.stallTimeout > 0) {
        QObject::connect(&m_watchTimer, &QTimer::timeout, &m_context, [this] { watch(); });
        m_watchTimer.start(std::min(500, int(m_options.stallTimeout * 1000)));
    }
    // The progress line is for a person at a terminal; nobody else is woken for it.
    if (m_options.progress && isatty(STDERR_FILENO)) {
        QObject::connect(&m_progressTimer, &QTimer::timeout, &m_context, [this] { printProgress(false); });
        m_progressTimer.start(250);
    }
}

void Session::watch()
{
    // An unplugged camera sends nothing more, so there is no point waiting out the timeout.
    const bool gone = m_node->gone();
    // Cameras (and the simulated one, which encodes its clip first) take a while to start.
    const int64_t last = m_recorder->lastFrameUs();
    const int64_t quiet = last < 0 ? Recorder::nowUs() - m_playUs - kStartupGraceUs : Recorder::nowUs() - last;
    const bool silent = quiet >= int64_t(m_options.stallTimeout * 1e6);
    if (!gone && !silent)
        return;
    if (m_options.progress && isatty(STDERR_FILENO))
        std::fprintf(stderr, "\n");
    if (gone)
        std::fprintf(stderr, "camcap: camera unplugged\n");
    else
        std::fprintf(stderr, "camcap: camera stopped delivering (no frame for %g s)\n", m_options.stallTimeout);
    finish(EXIT_CAMERA_LOST, gone ? QStringLiteral("unplugged") : QStringLiteral("stalled"));
}

void Session::printProgress(bool final)
{
    const int64_t first = m_recorder->firstFrameUs();
    const double elapsed = first < 0 ? 0.0 : ((m_stopUs ? m_stopUs : Recorder::nowUs()) - first) / 1e6;
    const double rateTime = std::max(0.001, elapsed);
    const long long frames = m_recorder->frames();
    const double bytes = double(m_recorder->bytes());
    const PinStats pin = m_recorder->pinStats();
    std::fprintf(stderr, "%s%7.1f s %7lld frames %6.1f fps %7.2f Mbit/s %9.2f MB  waits %llu  drops %llu%s",
                 final ? "" : "\r", elapsed, frames, frames / rateTime, bytes * 8 / rateTime / 1e6, bytes / 1e6,
                 static_cast<unsigned long long>(pin.lagging), static_cast<unsigned long long>(pin.refused),
                 final ? "\n" : "");
}

void Session::printSummary(int code)
{
    std::fprintf(stderr, "camcap: summary: %s %dx%d, ", qPrintable(m_delivered), m_options.width, m_options.height);
    printProgress(true);
    if (m_recorder->firstFrameUs() < 0)
        std::fprintf(stderr, "camcap: the camera delivered no frame\n");
    if (!m_options.json)
        return;
    const int64_t first = m_recorder->firstFrameUs();
    const PinStats pin = m_recorder->pinStats();
    const QJsonObject summary{
        {QStringLiteral("codec"), codecName(m_deliveredCodec)},
        {QStringLiteral("width"), m_options.width},
        {QStringLiteral("height"), m_options.height},
        {QStringLiteral("frames"), double(m_recorder->frames())},
        {QStringLiteral("bytes"), double(m_recorder->bytes())},
        {QStringLiteral("seconds"), first < 0 ? 0.0 : (m_stopUs - first) / 1e6},
        {QStringLiteral("waits"), double(pin.lagging)},
        {QStringLiteral("drops"), double(pin.refused)},
        {QStringLiteral("files"), QJsonArray::fromStringList(m_files)},
        {QStringLiteral("stop"), m_stopReason},
        {QStringLiteral("exit"), code}};
    std::printf("%s", QJsonDocument(QJsonObject{{QStringLiteral("formats"), m_formats},
                                                {QStringLiteral("summary"), summary}})
                          .toJson()
                          .constData());
    std::fflush(stdout);
}

void Session::finish(int code, const QString& why)
{
    if (m_finished)
        return;
    m_finished = true;
    m_stopUs = Recorder::nowUs();
    m_exitCode = code;
    m_stopReason = why;
    m_watchTimer.stop();
    m_progressTimer.stop();
    m_durationTimer.stop();
    m_element->stop();
    m_recorder->stop();
    if (m_sink && !m_sink->finish() && code == EXIT_OK) {
        std::fprintf(stderr, "camcap: finishing %s failed: %s\n", qPrintable(outputName()), qPrintable(m_sink->error()));
        code = EXIT_OUTPUT;
    }
    if (auto* segments = dynamic_cast<SegmentWriter*>(m_sink.get()))
        m_files = segments->files();
    else if (m_sink)
        m_files = QStringList{outputName()};
    if (m_options.progress && isatty(STDERR_FILENO))
        std::fprintf(stderr, "\n");
    printSummary(code);
    QCoreApplication::exit(code);
}

void Session::reportUnexpectedExit()
{
    if (m_finished || !m_recorder)
        return;
    m_finished = true;
    m_stopUs = Recorder::nowUs();
    m_recorder->stop();
    if (m_sink)
        m_sink->finish();
    std::fprintf(stderr, "\ncamcap: the element ended the process: the camera stopped delivering or the "
                         "consumer was lost (exit status 255)\n");
    m_stopReason = QStringLiteral("element quit");
    printSummary(255);
}
