#include "Session.h"

#include <unistd.h>

#include <QCoreApplication>
#include <QDateTime>
#include <QFile>
#include <QMetaObject>
#include <QTimer>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "IMediaElement.h"
#include "Logger.h"
#include "MediaPin.h"
#include "Recorder.h"

namespace {

volatile std::sig_atomic_t g_interrupted = 0;
void onSignal(int) { g_interrupted = 1; }

struct CodecName {
    int codec;
    const char* name;
};
const CodecName kCodecNames[] = {{CODEC_TYPE_H264, "h264"}, {CODEC_TYPE_HEVC, "hevc"},
                                 {CODEC_TYPE_MJPEG, "mjpeg"}, {CODEC_TYPE_YUYV, "yuyv"},
                                 {CODEC_TYPE_NV12, "nv12"}};

QString codecName(int codec)
{
    for (const CodecName& c : kCodecNames)
        if (c.codec == codec)
            return QString::fromLatin1(c.name);
    return QString::number(codec);
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

// The element answers an H.264 request with the first of these the camera has at the size.
const int kNegotiationOrder[] = {CODEC_TYPE_H264, CODEC_TYPE_NV12, CODEC_TYPE_YUYV, CODEC_TYPE_MJPEG};

} // namespace

Session::Session(IMediaElement* element, const Options& options) : m_element(element), m_options(options) {}

Session::~Session()
{
    if (m_ownsOut && m_out)
        std::fclose(m_out);
}

int Session::listFormats(const QList<MediaFormat>& formats)
{
    if (formats.isEmpty()) {
        std::fprintf(stderr, "camcap: no camera found\n");
        return EXIT_NO_CAMERA;
    }
    std::printf("%-6s %6s %6s\n", "codec", "width", "height");
    for (const MediaFormat& f : formats)
        std::printf("%-6s %6d %6d\n", qPrintable(codecName(f.codecType)), f.width, f.height);
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
            std::fprintf(stderr, "camcap: the camera offers no %s format\n", qPrintable(m_options.format));
            return EXIT_FORMAT_REFUSED;
        }
    }
    const int w = m_options.width, h = m_options.height;
    if (wanted == CODEC_TYPE_MJPEG || wanted == CODEC_TYPE_HEVC) {
        m_codec = wanted;
        m_delivered = m_options.format;
        if (!offers(formats, wanted, w, h))
            std::fprintf(stderr, "camcap: note: the camera does not list %s at %dx%d\n",
                         qPrintable(m_options.format), w, h);
        return EXIT_OK;
    }
    // H.264, YUYV and NV12 all go through the element's H.264 negotiation.
    m_codec = CODEC_TYPE_H264;
    if (wanted != CODEC_TYPE_H264 && !offers(formats, wanted, w, h)) {
        std::fprintf(stderr, "camcap: the camera does not offer %s at %dx%d\n", qPrintable(m_options.format), w, h);
        return EXIT_FORMAT_REFUSED;
    }
    for (int codec : kNegotiationOrder) {
        if (offers(formats, codec, w, h)) {
            m_delivered = codec == CODEC_TYPE_MJPEG ? QStringLiteral("mjpeg")
                                                    : codec == CODEC_TYPE_H264
                                                          ? QStringLiteral("h264")
                                                          : QStringLiteral("h264 (encoded from %1)").arg(codecName(codec));
            if (codec != wanted && wanted != CODEC_TYPE_H264)
                std::fprintf(stderr, "camcap: note: the camera also offers %s at %dx%d, which the element prefers\n",
                             qPrintable(codecName(codec)), w, h);
            return EXIT_OK;
        }
    }
    std::fprintf(stderr, "camcap: the camera offers nothing the element can use at %dx%d\n", w, h);
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
    if (m_options.output == QLatin1String("-")) {
        m_out = stdout;
        return EXIT_OK;
    }
    m_out = std::fopen(QFile::encodeName(m_options.output).constData(), "wb");
    if (!m_out) {
        std::fprintf(stderr, "camcap: cannot write %s: %s\n", qPrintable(m_options.output), strerror(errno));
        return EXIT_OUTPUT;
    }
    m_ownsOut = true;
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

int Session::run()
{
    m_element->initialize();
    m_element->start();
    QObject::connect(m_element, &IMediaElement::mediaEvent, m_element, [this](QString key, QVariant) {
        if (key == QLatin1String("event.camera.gotframe"))
            m_gotFrame = true;
    });

    if (!m_options.listFormats) {
        if (int code = openOutput())
            return code;
    }
    const QList<MediaFormat> formats = m_element->getAttribute(ATTR_CAM_FORMATLIST).value<QList<MediaFormat>>();
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

    m_recorder = std::make_unique<Recorder>(m_element->getOutputPinList().value(0), m_out, m_options.frames);
    m_log = std::make_unique<LogCapture>();
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
                 m_options.height, m_out ? " to " : "",
                 m_out ? qPrintable(m_options.output == QLatin1String("-") ? QStringLiteral("stdout") : m_options.output)
                       : "");

    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    m_startMs = QDateTime::currentMSecsSinceEpoch();
    m_nextIdrAt = m_options.forceIdrEvery;
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, [this] { tick(); });
    timer.start(50);
    return QCoreApplication::exec();
}

void Session::tick()
{
    const double elapsed = (QDateTime::currentMSecsSinceEpoch() - m_startMs) / 1000.0;
    if (m_options.forceIdrEvery > 0 && m_recorder->frames() >= m_nextIdrAt) {
        int result = -1;
        QMetaObject::invokeMethod(m_element, "v4l2_h264_force_idr", Qt::DirectConnection, Q_RETURN_ARG(int, result));
        m_nextIdrAt += m_options.forceIdrEvery;
    }
    if (m_recorder->writeFailed()) {
        std::fprintf(stderr, "\ncamcap: writing %s failed: %s\n", qPrintable(m_options.output), strerror(errno));
        finish(EXIT_OUTPUT);
        return;
    }
    const bool done = g_interrupted || m_recorder->limitReached() ||
                      (m_options.durationSeconds > 0 && elapsed >= m_options.durationSeconds);
    if (done) {
        finish(EXIT_OK);
        return;
    }
    printProgress(false);
}

void Session::printProgress(bool final)
{
    if (!final && (!m_options.progress || !isatty(STDERR_FILENO)))
        return;
    const double elapsed = std::max(0.001, (QDateTime::currentMSecsSinceEpoch() - m_startMs) / 1000.0);
    const long long frames = m_recorder->frames();
    const double bytes = double(m_recorder->bytes());
    const PinStats pin = m_recorder->pinStats();
    std::fprintf(stderr, "%s%7.1f s %7lld frames %6.1f fps %7.2f Mbit/s %9.2f MB  waits %llu  drops %llu%s",
                 final ? "" : "\r", elapsed, frames, frames / elapsed, bytes * 8 / elapsed / 1e6, bytes / 1e6,
                 static_cast<unsigned long long>(pin.lagging), static_cast<unsigned long long>(pin.refused),
                 final ? "\n" : "");
}

void Session::finish(int code)
{
    if (m_finished)
        return;
    m_finished = true;
    m_exitCode = code;
    m_element->stop();
    m_recorder->stop();
    if (m_options.progress && isatty(STDERR_FILENO))
        std::fprintf(stderr, "\n");
    std::fprintf(stderr, "camcap: summary: %s %dx%d, ", qPrintable(m_delivered), m_options.width, m_options.height);
    printProgress(true);
    if (!m_gotFrame)
        std::fprintf(stderr, "camcap: the camera delivered no frame\n");
    QCoreApplication::exit(code);
}

void Session::reportUnexpectedExit()
{
    if (m_finished || !m_recorder)
        return;
    m_finished = true;
    m_recorder->stop();
    std::fprintf(stderr, "\ncamcap: the element ended the process: the camera stopped delivering or the "
                         "consumer was lost (exit status 255)\ncamcap: summary: %s %dx%d, ",
                 qPrintable(m_delivered), m_options.width, m_options.height);
    printProgress(true);
    if (m_out)
        std::fflush(m_out);
}
