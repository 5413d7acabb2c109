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
#include "Codecs.h"
#include "Codec/MediaMem.h"
#include "FrameSink.h"
#include "IMediaElement.h"
#include "MediaPin.h"
#include "Recorder.h"
#include "ElementLog.h"
#include "FileSeries.h"

namespace {

// SIGINT and SIGTERM reach the event loop through a pipe.
volatile std::sig_atomic_t g_signalWrite = -1;
void onSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] ssize_t n = ::write(g_signalWrite, &byte, 1);
}

using codecs::kNegotiationOrder;

// Whether the camera offers `codec` at w x h; at any size when w is 0.
bool offers(const QList<MediaFormat>& formats, int codec, int w = 0, int h = 0)
{
    for (const MediaFormat& f : formats)
        if (f.codecType == codec && (w == 0 || (f.width == w && f.height == h)))
            return true;
    return false;
}

double seconds(int64_t us) { return double(us) / 1e6; }

constexpr int64_t kStartupGraceUs = 10000000;
// The element ends the process after 300 failed reads in a row, one a second at most on a
// silent camera: camcap calls a stall well before, whatever --stall-timeout says.
constexpr double kElementPatienceSeconds = 240;

// "it offers hevc, mjpeg", for a refusal to point the user at what would work.
QString offered(const QList<MediaFormat>& formats)
{
    QStringList codecs;
    for (const MediaFormat& f : formats) {
        if (!codecs.contains(codecs::name(f.codecType)))
            codecs << codecs::name(f.codecType);
    }
    return QStringLiteral("it offers %1; --list-formats shows the sizes").arg(codecs.join(QStringLiteral(", ")));
}

} // namespace

Session::Session(IMediaElement* element, const Options& options)
    : m_element(element), m_options(options), m_events(options.events)
{
}

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
        const codecs::Codec* c = codecs::byCodec(f.codecType);
        const QStringList rates = c ? m_node->frameRates(c->fourcc, f.width, f.height) : QStringList();
        list.append(QJsonObject{{QStringLiteral("codec"), codecs::name(f.codecType)},
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
    const int wanted = codecs::byName(m_options.format);
    // The element asks the driver for what it is told; a driver without the format answers
    // with another, which would be recorded under the wrong name. H.264 is negotiated.
    const bool negotiable = std::any_of(std::begin(kNegotiationOrder), std::end(kNegotiationOrder),
                                        [&](int codec) { return offers(formats, codec); });
    if (wanted == CODEC_TYPE_H264 ? !negotiable : !offers(formats, wanted)) {
        std::fprintf(stderr, "camcap: the camera offers no %s format (%s)\n", qPrintable(m_options.format),
                     qPrintable(offered(formats)));
        return EXIT_FORMAT_REFUSED;
    }
    // Default size: the first of the format, or of the first format H.264 negotiates to.
    for (int codec : kNegotiationOrder) {
        const int sized = wanted == CODEC_TYPE_H264 ? codec : wanted;
        for (const MediaFormat& f : formats) {
            if (m_options.width == 0 && f.codecType == sized) {
                m_options.width = f.width;
                m_options.height = f.height;
            }
        }
    }
    const int w = m_options.width, h = m_options.height;
    if (wanted == CODEC_TYPE_MJPEG || wanted == CODEC_TYPE_HEVC) {
        m_codec = m_deliveredCodec = m_captureCodec = wanted;
        m_delivered = m_options.format;
        if (!offers(formats, wanted, w, h))
            std::fprintf(stderr, "camcap: note: the camera does not list %s at %dx%d; it delivers the nearest size\n",
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
            m_captureCodec = codec;
            m_deliveredCodec = codec == CODEC_TYPE_MJPEG ? CODEC_TYPE_MJPEG : CODEC_TYPE_H264;
            m_delivered = codec == CODEC_TYPE_MJPEG || codec == CODEC_TYPE_H264
                              ? codecs::name(codec)
                              : QStringLiteral("h264 (encoded from %1)").arg(codecs::name(codec));
            if (codec != wanted && wanted != CODEC_TYPE_H264)
                std::fprintf(stderr, "camcap: note: the camera also offers %s at %dx%d, which the element prefers\n",
                             qPrintable(codecs::name(codec)), w, h);
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
    FileSeries::Settings settings;
    settings.pattern = m_options.output;
    settings.segmentSeconds = m_options.segmentSeconds;
    settings.info = StreamInfo{m_options.container, m_deliveredCodec, m_options.width, m_options.height};
    settings.overwrite = m_options.overwrite;
    settings.keepFreeBytes = m_options.keepFreeBytes;
    settings.maxFiles = m_options.maxFiles;
    auto files = std::make_unique<FileSeries>(settings, m_events);
    QString error;
    if (!files->open(&error)) {
        std::fprintf(stderr, "camcap: cannot write %s\n", qPrintable(error));
        return EXIT_OUTPUT;
    }
    m_files = std::move(files);
    return EXIT_OK;
}

// Why play failed, from camcap's own look at the camera, step by step as the element goes:
// the node it opens, the format it asks for, and what is left: the capture buffers.
int Session::classifyPlayFailure()
{
    const CameraNode node;
    if (!node.opened() || !node.canCapture())
        return EXIT_NO_CAMERA;
    const codecs::Codec* capture = codecs::byCodec(m_captureCodec);
    if (capture && node.setFormat(capture->fourcc, m_options.width, m_options.height) != 0)
        return EXIT_FORMAT_REFUSED;
    return EXIT_SETUP_FAILED;
}

QString Session::outputName() const
{
    if (m_options.output == QLatin1String("-"))
        return QStringLiteral("stdout");
    return m_files && !m_files->current().isEmpty() ? m_files->current() : m_options.output;
}

// Plays the element and learns the size the camera really delivers.
int Session::play()
{
    m_playUs = Recorder::nowUs();
    if (m_element->play() != 0)
        return classifyPlayFailure();
    // Set before the recorder runs (it asks the node for key frames), kept while it runs.
    if (!m_node)
        m_node = std::make_unique<CameraNode>();
    int w = 0, h = 0;
    if (m_node->currentSize(&w, &h) && (w != m_options.width || h != m_options.height)) {
        m_options.width = w;
        m_options.height = h;
    }
    if (m_files)
        m_files->setFrameSize(m_options.width, m_options.height);
    return EXIT_OK;
}

int Session::setUp()
{
    m_element->initialize();
    m_element->start();
    m_log = std::make_unique<ElementLog>(m_options.verbosity >= 4);

    const QList<MediaFormat> formats = m_element->getAttribute(ATTR_CAM_FORMATLIST).value<QList<MediaFormat>>();
    m_node = std::make_unique<CameraNode>();
    m_formats = formatList(formats);
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
    events.done = [this] { QMetaObject::invokeMethod(&m_context, [this] { onRecorderDone(); }, Qt::QueuedConnection); };
    if (m_options.forceIdrEvery > 0) {
        events.keyFrameEvery = m_options.forceIdrEvery;
        // The node is replaced only while the recorder is stopped.
        events.keyFrameDue = [this] { m_node->requestKeyFrame(); };
    }
    const Recorder::Limits limits{m_options.frames, int64_t(m_options.durationSeconds * 1e6)};
    m_recorder = std::make_unique<Recorder>(m_element->getOutputPinList().value(0), m_files.get(), m_deliveredCodec,
                                            limits, std::move(events));
    if (int code = play()) {
        m_recorder.reset();
        std::fprintf(stderr, "camcap: play failed (%s)\n",
                     code == EXIT_NO_CAMERA ? "camera could not be opened"
                     : code == EXIT_FORMAT_REFUSED ? "format refused by the camera"
                                                   : "capture buffers could not be set up");
        m_log->show();
        return code;
    }
    std::fprintf(stderr, "camcap: recording %s %dx%d%s%s\n", qPrintable(m_delivered), m_options.width,
                 m_options.height, m_files ? " to " : "", m_files ? qPrintable(outputName()) : "");
    return EXIT_OK;
}

int Session::run()
{
    if (m_options.listFormats) {
        m_element->initialize();
        m_element->start();
        const QList<MediaFormat> formats = m_element->getAttribute(ATTR_CAM_FORMATLIST).value<QList<MediaFormat>>();
        m_node = std::make_unique<CameraNode>();
        m_formats = formatList(formats);
        return listFormats(formats);
    }
    if (const int code = setUp()) {
        fail(code, QStringLiteral("setup"));
        return code;
    }
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
    // The recorder ends a --duration run at the frame that reaches it; this ends it when no
    // frame comes to do so.
    if (m_options.durationSeconds > 0) {
        m_durationTimer.setSingleShot(true);
        QObject::connect(&m_durationTimer, &QTimer::timeout, &m_context, [this] {
            if (m_recorder->firstFrameUs() >= 0)
                finish(EXIT_OK, QStringLiteral("duration"));
        });
    }
    QObject::connect(&m_watchTimer, &QTimer::timeout, &m_context, [this] { watch(); });
    m_watchTimer.start(m_options.stallTimeout > 0 ? std::min(500, int(m_options.stallTimeout * 1000)) : 500);
    // The progress line is for a person at a terminal; nobody else is woken for it.
    if (m_options.progress && isatty(STDERR_FILENO)) {
        QObject::connect(&m_progressTimer, &QTimer::timeout, &m_context, [this] { printProgress(false); });
        m_progressTimer.start(250);
    }
}

void Session::watch()
{
    m_log->collect();
    if (m_waiting) {
        tryComingBack();
        return;
    }
    const int64_t first = m_recorder->firstFrameUs();
    if (m_options.durationSeconds > 0 && first >= 0 && !m_durationTimer.isActive())
        m_durationTimer.start(std::max<int>(0, int((first - Recorder::nowUs()) / 1000 + m_options.durationSeconds * 1000 + 1000)));
    // An unplugged camera sends nothing more, so there is no point waiting out the timeout.
    const bool gone = m_node->gone();
    // Cameras (and the simulated one, which encodes its clip first) take a while to start.
    const int64_t now = Recorder::nowUs();
    const int64_t last = m_recorder->lastFrameUs();
    const bool started = last >= m_playUs;
    const int64_t quiet = started ? now - last : now - m_playUs - kStartupGraceUs;
    const double timeout = m_options.stallTimeout > 0 ? std::min(m_options.stallTimeout, kElementPatienceSeconds)
                                                      : kElementPatienceSeconds;
    const bool silent = quiet >= int64_t(timeout * 1e6);
    if (!gone && !silent)
        return;
    if (m_options.progress && isatty(STDERR_FILENO))
        std::fprintf(stderr, "\n");
    if (gone)
        std::fprintf(stderr, "camcap: camera unplugged\n");
    else if (started)
        std::fprintf(stderr, "camcap: camera stopped delivering (no frame for %.1f s)\n", seconds(now - last));
    else
        std::fprintf(stderr, "camcap: the camera delivered no frame in %.1f s\n", seconds(now - m_playUs));
    m_log->show();
    const QString why = gone ? QStringLiteral("unplugged") : QStringLiteral("stalled");
    if (m_options.reconnect)
        loseCamera(why);
    else
        finish(EXIT_CAMERA_LOST, why);
}

void Session::loseCamera(const QString& why)
{
    std::fprintf(stderr, "camcap: camera lost; waiting for it\n");
    m_element->stop();
    m_recorder->stop();
    if (m_files)
        m_files->breakFile();
    m_node.reset();
    m_waiting = true;
    m_lostUs = Recorder::nowUs();
    m_gaps.append(QJsonObject{{QStringLiteral("lost"), EventLog::now()},
                              {QStringLiteral("why"), why},
                              {QStringLiteral("back"), QJsonValue::Null},
                              {QStringLiteral("seconds"), QJsonValue::Null}});
    m_events.report("camera-lost", {{QStringLiteral("why"), why}});
}

// While waiting: the camera is back when the node the element opens answers as a capture
// device again (its name may have changed); then the element runs again from initialize.
void Session::tryComingBack()
{
    const int64_t waited = Recorder::nowUs() - m_lostUs;
    if (m_options.reconnectSeconds > 0 && waited >= int64_t(m_options.reconnectSeconds * 1e6)) {
        std::fprintf(stderr, "camcap: the camera did not come back in %.1f s\n", seconds(waited));
        finish(EXIT_CAMERA_LOST, m_gaps.last().toObject().value(QStringLiteral("why")).toString());
        return;
    }
    if (!CameraNode().canCapture())
        return;
    m_element->initialize();
    m_element->start();
    if (applyFormat() != EXIT_OK || play() != EXIT_OK) {
        // Back on the bus but not ready yet: try again at the next look.
        m_element->stop();
        m_node.reset();
        m_log->collect();
        return;
    }
    m_recorder->resume();
    m_waiting = false;
    QJsonObject gap = m_gaps.last().toObject();
    gap.insert(QStringLiteral("back"), EventLog::now());
    gap.insert(QStringLiteral("seconds"), seconds(Recorder::nowUs() - m_lostUs));
    m_gaps.replace(m_gaps.size() - 1, gap);
    std::fprintf(stderr, "camcap: camera back on %s\n", qPrintable(m_node->path()));
    m_events.report("camera-back", {{QStringLiteral("node"), m_node->path()}});
}

void Session::onRecorderDone()
{
    if (!m_recorder->writeFailed()) {
        finish(EXIT_OK, m_recorder->frames() >= m_options.frames && m_options.frames > 0 ? QStringLiteral("frames")
                                                                                          : QStringLiteral("duration"));
        return;
    }
    if (m_files->diskFull()) {
        std::fprintf(stderr, "camcap: disk full: %s ends at its last complete %s\n", qPrintable(outputName()),
                     m_options.container == QLatin1String("raw")   ? "frame"
                     : m_options.container == QLatin1String("mkv") ? "cluster"
                                                                    : "fragment");
        finish(EXIT_DISK_FULL, QStringLiteral("disk full"));
    } else {
        std::fprintf(stderr, "camcap: writing %s failed: %s\n", qPrintable(outputName()), qPrintable(m_files->error()));
        finish(EXIT_OUTPUT, QStringLiteral("write failed"));
    }
}

void Session::printProgress(bool final)
{
    const int64_t first = m_recorder ? m_recorder->firstFrameUs() : -1;
    const double elapsed = first < 0 ? 0.0 : seconds((m_stopUs ? m_stopUs : Recorder::nowUs()) - first);
    const double rateTime = std::max(0.001, elapsed);
    const long long frames = m_recorder ? m_recorder->frames() : 0;
    const double bytes = m_recorder ? double(m_recorder->bytes()) : 0;
    const PinStats pin = m_recorder ? m_recorder->pinStats() : PinStats{};
    std::fprintf(stderr, "%s%7.1f s %7lld frames %6.1f fps %7.2f Mbit/s %9.2f MB  waits %llu  drops %llu%s",
                 final ? "" : "\r", elapsed, frames, frames / rateTime, bytes * 8 / rateTime / 1e6, bytes / 1e6,
                 static_cast<unsigned long long>(pin.lagging), static_cast<unsigned long long>(pin.refused),
                 final ? "\n" : "");
}

void Session::printSummary(int code)
{
    if (m_recorder) {
        std::fprintf(stderr, "camcap: summary: %s %dx%d, ", qPrintable(m_delivered), m_options.width,
                     m_options.height);
        printProgress(true);
        if (m_recorder->firstFrameUs() < 0)
            std::fprintf(stderr, "camcap: the camera delivered no frame\n");
    }
    if (!m_options.json)
        return;
    const int64_t first = m_recorder ? m_recorder->firstFrameUs() : -1;
    const PinStats pin = m_recorder ? m_recorder->pinStats() : PinStats{};
    const QJsonObject summary{
        {QStringLiteral("codec"), m_deliveredCodec < 0 ? QJsonValue() : QJsonValue(codecs::name(m_deliveredCodec))},
        {QStringLiteral("width"), m_options.width},
        {QStringLiteral("height"), m_options.height},
        {QStringLiteral("frames"), m_recorder ? double(m_recorder->frames()) : 0.0},
        {QStringLiteral("bytes"), m_recorder ? double(m_recorder->bytes()) : 0.0},
        {QStringLiteral("seconds"), first < 0 ? 0.0 : seconds(m_recorder->recordedUntilUs() - first)},
        {QStringLiteral("largest_gap"), m_recorder ? seconds(m_recorder->largestGapUs()) : 0.0},
        {QStringLiteral("rate"), m_node ? m_node->frameRate() : 0.0},
        {QStringLiteral("memory"), QString::fromLatin1(Codec::MediaMem::dmaSourceName())},
        {QStringLiteral("waits"), double(pin.lagging)},
        {QStringLiteral("drops"), double(pin.refused)},
        {QStringLiteral("files"), QJsonArray::fromStringList(m_files ? m_files->files() : QStringList())},
        {QStringLiteral("removed"), QJsonArray::fromStringList(m_files ? m_files->removed() : QStringList())},
        {QStringLiteral("gaps"), m_gaps},
        {QStringLiteral("stop"), m_stopReason},
        {QStringLiteral("exit"), code}};
    const QJsonDocument document(QJsonObject{{QStringLiteral("formats"), m_formats}, {QStringLiteral("summary"), summary}});
    // Among event lines the summary is one line too.
    std::printf("%s%s", document.toJson(m_options.events ? QJsonDocument::Compact : QJsonDocument::Indented).constData(),
                m_options.events ? "\n" : "");
    std::fflush(stdout);
}

// A run that ended before recording: the JSON summary still says how and why.
void Session::fail(int code, const QString& why)
{
    m_finished = true;
    m_stopReason = why;
    if (m_files)
        m_files->finish();
    printSummary(code);
}

void Session::finish(int code, const QString& why)
{
    if (m_finished)
        return;
    m_finished = true;
    m_stopUs = Recorder::nowUs();
    m_stopReason = why;
    m_watchTimer.stop();
    m_progressTimer.stop();
    m_durationTimer.stop();
    m_element->stop();
    m_recorder->stop();
    if (m_files && !m_files->finish() && code == EXIT_OK) {
        std::fprintf(stderr, "camcap: finishing %s failed: %s\n", qPrintable(outputName()), qPrintable(m_files->error()));
        code = m_files->diskFull() ? EXIT_DISK_FULL : EXIT_OUTPUT;
    }
    if (m_options.progress && isatty(STDERR_FILENO))
        std::fprintf(stderr, "\n");
    if (code != EXIT_OK)
        m_log->show();
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
    if (m_files)
        m_files->finish();
    std::fprintf(stderr, "\ncamcap: the element ended the process: the camera stopped delivering or the "
                         "consumer was lost (exit status 255)\n");
    m_log->show();
    m_stopReason = QStringLiteral("element quit");
    printSummary(255);
}
