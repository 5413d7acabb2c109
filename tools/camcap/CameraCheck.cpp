#include "CameraCheck.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "Codecs.h"
#include "ContainerModule.h"
#include "UniqueFd.h"

extern char** environ;

namespace {

using Verdict = CameraCheck::Verdict;
using check::NodeInfo;

const char* verdictName(Verdict v)
{
    switch (v) {
    case Verdict::Ok: return "ok";
    case Verdict::Warn: return "warn";
    case Verdict::No: return "no";
    case Verdict::Skipped: return "skipped";
    }
    return "?";
}

QString errnoName(int error)
{
    const char* name = strerrorname_np(error);
    return QStringLiteral("%1: %2").arg(QLatin1String(name ? name : "?"), QString::fromLocal8Bit(strerror(error)));
}

// "is an output device (vivid), not a camera", "cannot be opened (EACCES: ...)".
QString whatItIs(const NodeInfo& n)
{
    if (n.openErrno)
        return QStringLiteral("cannot be opened (%1)").arg(errnoName(n.openErrno));
    const QString driver = n.driver.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(n.driver);
    if (n.m2m)
        return QStringLiteral("is a memory-to-memory device%1 (a codec or an ISP), not a camera").arg(driver);
    if (n.output)
        return QStringLiteral("is an output device%1, not a camera").arg(driver);
    if (n.metadata)
        return QStringLiteral("is a metadata node%1, not a camera").arg(driver);
    return QStringLiteral("is not a capture device%1").arg(driver);
}

QString nodeName(const NodeInfo& n)
{
    QStringList about;
    if (!n.driver.isEmpty())
        about << n.driver;
    if (!n.usbId.isEmpty())
        about << n.usbId;
    return about.isEmpty() ? n.path : QStringLiteral("%1 (%2)").arg(n.path, about.join(QStringLiteral(", ")));
}

QString sourceText(const QString& source, const QString& device)
{
    const QString leaf = QFileInfo(device).fileName();
    if (source == QLatin1String("dma-heap"))
        return QStringLiteral("the DMA heap (%1)").arg(leaf.isEmpty() ? QStringLiteral("system") : leaf);
    if (source == QLatin1String("drm"))
        return QStringLiteral("DRM dumb buffers (%1)").arg(leaf.isEmpty() ? QStringLiteral("card?") : leaf);
    if (source == QLatin1String("memfd"))
        return QStringLiteral("memfd");
    return source;
}

QString fileExtension(int codec)
{
    return codec == CODEC_TYPE_MJPEG ? QStringLiteral("mjpeg") : codec == CODEC_TYPE_HEVC ? QStringLiteral("hevc")
                                                                                         : QStringLiteral("h264");
}

struct ChildRun {
    int status = -1;       // exit status, or -1 when it could not run or was killed
    int spawnErrno = 0;
    double cpuSeconds = 0;
    double seconds = 0;    // how long it ran
    QByteArray out, err;
};

// Runs `argv` with the environment of this process (a simulated camera included), its
// output in files under `dir`; stopped with SIGTERM at `deadline`, SIGKILL 5 s later.
ChildRun runChild(const QStringList& argv, const QString& dir, std::chrono::milliseconds deadline)
{
    ChildRun run;
    const QByteArray outPath = QFile::encodeName(dir + QStringLiteral("/stdout"));
    const QByteArray errPath = QFile::encodeName(dir + QStringLiteral("/stderr"));
    QList<QByteArray> storage;
    std::vector<char*> args;
    for (const QString& a : argv)
        storage << QFile::encodeName(a);
    for (QByteArray& a : storage)
        args.push_back(a.data());
    args.push_back(nullptr);
    // fork and execve rather than posix_spawn: an emulator's preloaded shim catches execve.
    const UniqueFd in(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    const UniqueFd out(::open(outPath.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    const UniqueFd err(::open(errPath.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!in || !out || !err) {
        run.spawnErrno = errno;
        return run;
    }
    const pid_t pid = fork();
    if (pid < 0) {
        run.spawnErrno = errno;
        return run;
    }
    if (pid == 0) {
        // Only async-signal-safe calls between fork and exec.
        if (dup2(in.get(), 0) < 0 || dup2(out.get(), 1) < 0 || dup2(err.get(), 2) < 0)
            _exit(127);
        execve(args[0], args.data(), environ);
        _exit(127);
    }
    const auto start = std::chrono::steady_clock::now();
    int signalled = 0;
    int status = 0;
    rusage usage{};
    for (;;) {
        const pid_t done = wait4(pid, &status, WNOHANG, &usage);
        if (done == pid || (done < 0 && errno != EINTR))
            break;
        const auto waited = std::chrono::steady_clock::now() - start;
        if (signalled == 0 && waited > deadline)
            signalled = ::kill(pid, SIGTERM) == 0 ? SIGTERM : -1;
        else if (signalled == SIGTERM && waited > deadline + std::chrono::seconds(5))
            signalled = ::kill(pid, SIGKILL) == 0 ? SIGKILL : -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    run.cpuSeconds = double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                     double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    QFile outFile(QFile::decodeName(outPath)), errFile(QFile::decodeName(errPath));
    if (outFile.open(QIODevice::ReadOnly))
        run.out = outFile.readAll();
    if (errFile.open(QIODevice::ReadOnly))
        run.err = errFile.readAll();
    return run;
}

} // namespace

CameraCheck::CameraCheck(const Options& options, const QString& self) : m_options(options), m_self(self) {}

CameraCheck::Line CameraCheck::checkNodes()
{
    Line line;
    line.key = QStringLiteral("nodes");
    m_nodes = check::surveyNodes();
    QJsonArray list;
    for (const NodeInfo& n : m_nodes) {
        QString detail = n.linkTo.isEmpty() ? n.path : QStringLiteral("%1 -> %2").arg(n.path, n.linkTo);
        detail += QStringLiteral("  ") + (n.openErrno ? whatItIs(n) : n.kinds());
        if (&n == &m_nodes.first())
            detail += QStringLiteral(" (the element's)");
        if (!n.driver.isEmpty())
            detail += QStringLiteral("  %1 \"%2\" %3").arg(n.driver, n.card, n.bus);
        if (!n.usbId.isEmpty())
            detail += QStringLiteral("  usb %1").arg(n.usbId);
        line.details << detail;
        list.append(QJsonObject{{QStringLiteral("path"), n.path},
                                {QStringLiteral("link_to"), n.linkTo.isEmpty() ? QJsonValue() : QJsonValue(n.linkTo)},
                                {QStringLiteral("driver"), n.driver},
                                {QStringLiteral("card"), n.card},
                                {QStringLiteral("bus"), n.bus},
                                {QStringLiteral("usb"), n.usbId},
                                {QStringLiteral("capture"), n.capture},
                                {QStringLiteral("output"), n.output},
                                {QStringLiteral("m2m"), n.m2m},
                                {QStringLiteral("metadata"), n.metadata},
                                {QStringLiteral("error"), n.openErrno ? errnoName(n.openErrno) : QString()}});
    }
    line.json.insert(QStringLiteral("list"), list);
    if (m_nodes.isEmpty()) {
        line.verdict = Verdict::No;
        line.text = QStringLiteral("no video device under /dev");
        line.fix = QStringLiteral("plug the camera in and load its driver (uvcvideo for USB cameras)");
        return line;
    }
    const NodeInfo& first = m_nodes.first();
    line.json.insert(QStringLiteral("element_node"), first.path);
    QString camera;
    for (const NodeInfo& n : m_nodes) {
        if (n.capture && camera.isEmpty())
            camera = n.path;
    }
    line.json.insert(QStringLiteral("camera_node"), camera.isEmpty() ? QJsonValue() : QJsonValue(camera));
    if (first.capture) {
        m_node = &m_nodes.first();
        line.text = QStringLiteral("%1 can capture; the element opens it (the lowest-numbered node)").arg(nodeName(first));
        return line;
    }
    line.verdict = Verdict::No;
    if (camera.isEmpty()) {
        line.text = QStringLiteral("%1 %2, and no node can capture").arg(first.path, whatItIs(first));
        line.fix = first.openErrno == EACCES ? QStringLiteral("give the user access to the node (the video group)")
                   : first.openErrno == EBUSY ? QStringLiteral("stop the program that holds the camera")
                                              : QStringLiteral("plug the camera in and load its driver (uvcvideo for USB cameras)");
    } else {
        line.text = QStringLiteral("%1 %2; the camera is %3, which the element does not open")
                        .arg(first.path, whatItIs(first), camera);
        line.fix = QStringLiteral("the element opens the lowest-numbered /dev/video*: link the camera as /dev/video-1 "
                                  "(a udev rule, docs/deploying.md) or load %1's driver after the camera's").arg(first.path);
    }
    return line;
}

CameraCheck::Line CameraCheck::checkFormats()
{
    Line line;
    line.key = QStringLiteral("formats");
    m_formats = check::listFormats(m_node->path);
    const int wanted = codecs::byName(m_options.format);
    const auto offers = [&](int codec) {
        for (const check::FormatInfo& f : m_formats)
            if (f.codec == codec && !f.sizes.isEmpty())
                return &f;
        return static_cast<const check::FormatInfo*>(nullptr);
    };
    // What the element captures for the request: H.264 (the default) is negotiated; a
    // camera with nothing it negotiates is checked with HEVC unless a format was asked for.
    int request = wanted;
    if (wanted == CODEC_TYPE_H264) {
        for (int codec : codecs::kNegotiationOrder) {
            if (offers(codec) && m_captureCodec < 0)
                m_captureCodec = codec;
        }
        if (m_captureCodec < 0 && !m_options.formatGiven && offers(CODEC_TYPE_HEVC))
            m_captureCodec = request = CODEC_TYPE_HEVC;
    } else if (offers(wanted)) {
        m_captureCodec = wanted;
    }
    QJsonArray list;
    QStringList others;
    for (const check::FormatInfo& f : m_formats) {
        QStringList sizes;
        QJsonArray jsonSizes;
        for (const check::SizeInfo& s : f.sizes) {
            sizes << s.text;
            jsonSizes.append(QJsonObject{{QStringLiteral("size"), s.text},
                                         {QStringLiteral("fps"), QJsonArray::fromStringList(s.rates)}});
        }
        const QStringList rates = f.sizes.isEmpty() ? QStringList() : f.sizes.first().rates;
        if (f.codec < 0) {
            others << check::fourccText(f.fourcc);
        } else {
            QString use = codecs::isRaw(f.codec) ? QStringLiteral("encoded to h264 by the element")
                                                 : QStringLiteral("passed through");
            const auto rank = std::find(std::begin(codecs::kNegotiationOrder), std::end(codecs::kNegotiationOrder), f.codec);
            if (rank != std::end(codecs::kNegotiationOrder))
                use += QStringLiteral(", choice %1 for h264").arg(rank - std::begin(codecs::kNegotiationOrder) + 1);
            if (f.codec == m_captureCodec)
                use += QStringLiteral(" <- checked");
            line.details << QStringLiteral("%1 %2: %3 at %4 fps: %5")
                                .arg(check::fourccText(f.fourcc), f.description, sizes.join(QLatin1Char(' ')),
                                     rates.join(QStringLiteral(", ")), use);
        }
        list.append(QJsonObject{{QStringLiteral("fourcc"), check::fourccText(f.fourcc)},
                                {QStringLiteral("codec"), f.codec < 0 ? QJsonValue() : QJsonValue(codecs::name(f.codec))},
                                {QStringLiteral("sizes"), jsonSizes},
                                {QStringLiteral("use"), f.codec < 0 ? QStringLiteral("none")
                                                        : codecs::isRaw(f.codec) ? QStringLiteral("encoded")
                                                                                 : QStringLiteral("passthrough")}});
    }
    line.json.insert(QStringLiteral("list"), list);
    if (!others.isEmpty()) {
        constexpr int kShown = 8;
        line.details << QStringLiteral("also %1 format%2 the element does not take: %3%4")
                            .arg(others.size())
                            .arg(others.size() == 1 ? "" : "s")
                            .arg(others.mid(0, kShown).join(QLatin1Char(' ')))
                            .arg(others.size() > kShown ? QStringLiteral(" ...") : QString());
    }
    if (m_captureCodec < 0) {
        line.verdict = Verdict::No;
        line.text = wanted == CODEC_TYPE_H264
                        ? QStringLiteral("%1 offers none of the formats the element takes (h264, nv12, yuyv, mjpeg, hevc)")
                              .arg(m_node->path)
                        : QStringLiteral("%1 offers no %2").arg(m_node->path, m_options.format);
        line.fix = QStringLiteral("choose a format the camera offers (--format), or a camera with one");
        return line;
    }
    const check::FormatInfo* chosen = offers(m_captureCodec);
    m_fourcc = chosen->fourcc;
    m_width = m_options.width ? m_options.width : chosen->sizes.first().width;
    m_height = m_options.height ? m_options.height : chosen->sizes.first().height;
    m_options.format = codecs::name(request);
    m_delivered = codecs::isRaw(m_captureCodec)
                      ? QStringLiteral("h264 (encoded from %1)").arg(codecs::name(m_captureCodec))
                      : codecs::name(m_captureCodec);
    line.text = QStringLiteral("the element takes %1 %2x%3 for --format %4: %5")
                    .arg(check::fourccText(m_fourcc))
                    .arg(m_width)
                    .arg(m_height)
                    .arg(m_options.format, codecs::isRaw(m_captureCodec) ? QStringLiteral("encoded to h264")
                                                                          : QStringLiteral("passed through"));
    line.json.insert(QStringLiteral("checked"), QJsonObject{{QStringLiteral("fourcc"), check::fourccText(m_fourcc)},
                                                            {QStringLiteral("width"), m_width},
                                                            {QStringLiteral("height"), m_height},
                                                            {QStringLiteral("delivered"), m_delivered}});
    return line;
}

CameraCheck::Line CameraCheck::checkMemory()
{
    Line line;
    line.key = QStringLiteral("memory");
    bool known = false;
    const char* forced = std::getenv("MEDIAMEM_SOURCE");
    const std::vector<Codec::DmaBufSource> order = Codec::sourceOrder(forced, &known);
    QList<check::ImportTry> tries;
    QJsonArray list;
    for (Codec::DmaBufSource source : {Codec::DmaBufSource::DmaHeap, Codec::DmaBufSource::Udmabuf,
                                       Codec::DmaBufSource::Drm, Codec::DmaBufSource::Memfd}) {
        const check::ImportTry t = check::tryImport(m_node->path, m_fourcc, m_width, m_height, source, 3, 3000);
        tries << t;
        const QString name = QLatin1String(Codec::dmaBufSourceName(source));
        QString detail = name + QStringLiteral(": ");
        if (!t.device.isEmpty())
            detail += t.device + QStringLiteral(" ");
        if (!t.allocated && t.failedAt == QLatin1String("allocation"))
            detail += QStringLiteral("not available here (%1)").arg(errnoName(t.error));
        else if (!t.imported)
            detail += QStringLiteral("refused at %1 (%2)").arg(t.failedAt, errnoName(t.error));
        else
            detail += QStringLiteral("imported, %1 of 3 frames in 3 s").arg(t.frames);
        line.details << detail;
        list.append(QJsonObject{{QStringLiteral("source"), name},
                                {QStringLiteral("device"), t.device},
                                {QStringLiteral("available"), t.allocated},
                                {QStringLiteral("imported"), t.imported},
                                {QStringLiteral("frames"), t.frames},
                                {QStringLiteral("failed_at"), t.failedAt},
                                {QStringLiteral("error"), t.error ? errnoName(t.error) : QString()}});
    }
    line.json.insert(QStringLiteral("sources"), list);
    // Whatever source: the node itself may refuse (busy, a format it does not take).
    for (const check::ImportTry& t : tries) {
        if (t.failedAt == QLatin1String("VIDIOC_S_FMT") || t.failedAt == QLatin1String("open")) {
            line.verdict = Verdict::No;
            line.text = QStringLiteral("%1 could not be set up at %2 (%3)").arg(m_node->path, t.failedAt, errnoName(t.error));
            line.fix = t.error == EBUSY ? QStringLiteral("stop the program that streams from the camera")
                                        : QStringLiteral("see the formats line");
            return line;
        }
    }
    const check::ImportTry* chosen = nullptr;
    for (Codec::DmaBufSource source : order) {
        const check::ImportTry& t = tries[int(source)];
        if (t.allocated && !chosen)
            chosen = &t;
    }
    QStringList imported;
    for (const check::ImportTry& t : tries) {
        if (t.imported)
            imported << QLatin1String(Codec::dmaBufSourceName(t.source));
    }
    const QString needs = QStringLiteral("the board needs a DMA heap (CONFIG_DMABUF_HEAPS_SYSTEM), udmabuf "
                                         "(CONFIG_UDMABUF) or a DRM driver with dumb buffers (docs/deploying.md)");
    if (!known) {
        line.verdict = Verdict::No;
        line.text = QStringLiteral("MEDIAMEM_SOURCE=%1 names no memory source").arg(QLatin1String(forced));
        line.fix = QStringLiteral("dma-heap, udmabuf, drm or memfd, or unset it");
        return line;
    }
    if (!chosen) {
        line.verdict = Verdict::No;
        line.text = forced && *forced ? QStringLiteral("MEDIAMEM_SOURCE=%1 is not available here").arg(QLatin1String(forced))
                                      : QStringLiteral("no DMA-BUF source is available here");
        line.fix = needs;
        return line;
    }
    const QString name = QLatin1String(Codec::dmaBufSourceName(chosen->source));
    m_expectedSource = name;
    m_sourceDevice = chosen->device;
    line.json.insert(QStringLiteral("element_source"), name);
    if (chosen->imported) {
        line.text = QStringLiteral("the element takes %1, which %2 imports").arg(sourceText(name, chosen->device), m_node->path);
        return line;
    }
    line.verdict = Verdict::No;
    line.text = QStringLiteral("the element takes %1, which %2 refuses at %3 (%4)")
                    .arg(sourceText(name, chosen->device), m_node->path, chosen->failedAt, errnoName(chosen->error));
    if (!imported.isEmpty())
        line.fix = QStringLiteral("MEDIAMEM_SOURCE=%1 makes the element use %1, which it imports").arg(imported.first());
    else if (chosen->error == EFAULT)
        line.fix = QStringLiteral("the driver takes only physically contiguous memory, and every source here is "
                                  "scattered pages: a CMA heap or a display driver with CMA dumb buffers (docs/deploying.md)");
    else
        line.fix = QStringLiteral("every source here is refused by the driver; ") + needs;
    return line;
}

CameraCheck::Line CameraCheck::checkControls()
{
    Line line;
    line.key = QStringLiteral("controls");
    const check::ControlsInfo c = check::probeControls(*m_node);
    bool coded = false;
    for (const check::FormatInfo& f : m_formats)
        coded = coded || f.codec == CODEC_TYPE_H264 || f.codec == CODEC_TYPE_HEVC;
    QStringList warnings, fixes;
    if (!coded)
        line.details << QStringLiteral("force key frame: not needed (the element's encoder makes the key frames)");
    else if (c.keyFrameControl)
        line.details << QStringLiteral("force key frame: yes");
    else {
        line.details << QStringLiteral("force key frame: no; key frames come only at the camera's own interval");
        warnings << QStringLiteral("no force-key-frame control");
        fixes << QStringLiteral("a camera with V4L2_CID_MPEG_VIDEO_FORCE_KEY_FRAME, or a short key-frame interval");
    }
    line.details << (c.extensionUnitErrno ? QStringLiteral("UVC extension unit 9: no answer (%1); the host's extension "
                                                           "unit calls fail")
                                                .arg(errnoName(c.extensionUnitErrno))
                                          : QStringLiteral("UVC extension unit 9: answers"));
    if (c.usbDevice.isEmpty()) {
        line.details << QStringLiteral("USB reset: not a USB camera");
    } else if (c.resetErrno) {
        line.details << QStringLiteral("USB reset: not permitted (%1 on %2); the element cannot reset a camera that hangs")
                            .arg(errnoName(c.resetErrno), c.usbDevice);
        warnings << QStringLiteral("USB reset not permitted");
        fixes << QStringLiteral("write access to %1 (a udev rule, docs/deploying.md)").arg(c.usbDevice);
    } else {
        line.details << QStringLiteral("USB reset: permitted (%1)").arg(c.usbDevice);
    }
    const QString layout = QStringLiteral("%1-byte struct v4l2_buffer (%2-bit time)").arg(c.bufferBytes).arg(c.time64 ? 64 : 32);
    line.details << (c.layoutErrno ? QStringLiteral("this build's %1: the kernel does not take it").arg(layout)
                                   : QStringLiteral("this build's %1: the kernel takes it").arg(layout));
    line.json = QJsonObject{{QStringLiteral("force_key_frame"), coded ? QJsonValue(c.keyFrameControl) : QJsonValue()},
                            {QStringLiteral("extension_unit"), c.extensionUnitErrno == 0},
                            {QStringLiteral("usb_device"), c.usbDevice},
                            {QStringLiteral("usb_reset"), !c.usbDevice.isEmpty() && c.resetErrno == 0},
                            {QStringLiteral("usb_reset_error"), c.resetErrno && !c.usbDevice.isEmpty() ? errnoName(c.resetErrno) : QString()},
                            {QStringLiteral("v4l2_buffer_bytes"), c.bufferBytes},
                            {QStringLiteral("time_bits"), c.time64 ? 64 : 32},
                            {QStringLiteral("kernel_takes_layout"), c.layoutErrno == 0}};
    if (c.layoutErrno) {
        line.verdict = Verdict::No;
        line.text = QStringLiteral("the kernel does not take this build's %1").arg(layout);
        line.fix = c.time64 ? QStringLiteral("build without -D_TIME_BITS=64, or run a kernel of 5.6 or later")
                            : QStringLiteral("build for the kernel's time layout");
        return line;
    }
    if (!warnings.isEmpty()) {
        line.verdict = Verdict::Warn;
        line.text = warnings.join(QStringLiteral("; "));
        line.fix = fixes.join(QStringLiteral("; "));
        return line;
    }
    line.text = QStringLiteral("everything the element uses is there");
    return line;
}

CameraCheck::Line CameraCheck::checkRecording()
{
    Line line;
    line.key = QStringLiteral("recording");
    QTemporaryDir dir(QDir::tempPath() + QStringLiteral("/camcap-check-XXXXXX"));
    if (!dir.isValid()) {
        line.verdict = Verdict::Skipped;
        line.text = QStringLiteral("no temporary directory: %1").arg(dir.errorString());
        return line;
    }
    const QString codec = fileExtension(m_captureCodec);
    const QString file = dir.filePath(QStringLiteral("check.") + codec);
    QStringList argv{m_self, QStringLiteral("--format"), m_options.format, QStringLiteral("--size"),
                     QStringLiteral("%1x%2").arg(m_width).arg(m_height), QStringLiteral("--duration"),
                     QString::number(m_options.checkSeconds), QStringLiteral("--stall-timeout"),
                     QString::number(m_options.checkSeconds + 3), QStringLiteral("--output"), file,
                     QStringLiteral("--json"), QStringLiteral("--no-progress")};
    if (!m_options.pluginPath.isEmpty())
        argv << QStringLiteral("--plugin") << m_options.pluginPath;
    // A backstop only: camcap ends a silent camera's run itself (its stall timeout, after the
    // grace a starting camera gets); an emulated or sanitized camcap may start slowly.
    const auto deadline = std::chrono::milliseconds(int64_t(m_options.checkSeconds * 1000) + 30000);
    const ChildRun run = runChild(argv, dir.path(), deadline);
    if (run.spawnErrno || run.status == 127) {
        line.verdict = Verdict::Skipped;
        line.text = QStringLiteral("camcap could not run again for it (%1)")
                        .arg(run.spawnErrno ? errnoName(run.spawnErrno) : QStringLiteral("exec failed"));
        return line;
    }
    const QJsonObject summary = QJsonDocument::fromJson(run.out).object().value(QStringLiteral("summary")).toObject();
    const long long frames = summary.value(QStringLiteral("frames")).toVariant().toLongLong();
    const double seconds = summary.value(QStringLiteral("seconds")).toDouble();
    m_rate = summary.value(QStringLiteral("rate")).toDouble();
    m_usedSource = summary.value(QStringLiteral("memory")).toString();
    const double gap = summary.value(QStringLiteral("largest_gap")).toDouble();
    const double fps = seconds > 0 ? frames / seconds : 0;
    for (const QByteArray& l : run.err.split('\n')) {
        if (l.startsWith("camcap: ") && !l.startsWith("camcap: summary") && !l.startsWith("camcap: recording"))
            line.details << QString::fromLocal8Bit(l);
    }
    line.json = QJsonObject{{QStringLiteral("exit"), run.status},
                            {QStringLiteral("frames"), double(frames)},
                            {QStringLiteral("seconds"), seconds},
                            {QStringLiteral("fps"), fps},
                            {QStringLiteral("negotiated_fps"), m_rate},
                            {QStringLiteral("largest_gap"), gap},
                            {QStringLiteral("memory"), m_usedSource},
                            {QStringLiteral("cpu_ms_per_frame"), frames > 0 ? run.cpuSeconds * 1000 / frames : 0.0}};
    if (frames == 0) {
        line.verdict = Verdict::No;
        line.text = run.status == EXIT_SETUP_FAILED   ? QStringLiteral("the element could not set up capture (camcap exit 7)")
                    : run.status == EXIT_FORMAT_REFUSED ? QStringLiteral("the camera refused the format (camcap exit 5)")
                    : run.status == EXIT_NO_CAMERA      ? QStringLiteral("the element found no camera (camcap exit 4)")
                                                        : QStringLiteral("%1 delivered no frame in %2 s through the element")
                                                         .arg(m_node->path)
                                                         .arg(run.seconds, 0, 'f', 1);
        line.fix = QStringLiteral("camcap -v --duration 2 shows the element's log");
        return line;
    }
    QString error;
    DecodeResult decoded;
    const auto decode = reinterpret_cast<decltype(&camcap_decode_check)>(containerModuleSymbol("camcap_decode_check", &error));
    const bool decodable = decode && decode(QFile::encodeName(file).constData(), qPrintable(codec), &decoded, &error);
    QString decodeText = decodable ? QStringLiteral("%1 of %2 frames decode").arg(decoded.frames).arg(frames)
                                   : QStringLiteral("not decoded (%1)").arg(error);
    line.json.insert(QStringLiteral("decoded_frames"), decodable ? QJsonValue(double(decoded.frames)) : QJsonValue());
    line.json.insert(QStringLiteral("decode_errors"), decodable ? QJsonValue(double(decoded.errors)) : QJsonValue());
    line.text = QStringLiteral("%1 frames in %2 s (%3 fps, %4 negotiated), largest gap %5 ms, %6, %7 ms CPU a frame, "
                               "memory from %8")
                    .arg(frames)
                    .arg(seconds, 0, 'f', 1)
                    .arg(fps, 0, 'f', 1)
                    .arg(m_rate, 0, 'g', 4)
                    .arg(gap * 1000, 0, 'f', 0)
                    .arg(decodeText)
                    .arg(run.cpuSeconds * 1000 / frames, 0, 'f', 2)
                    .arg(m_usedSource);
    if (decodable && decoded.frames == 0) {
        line.verdict = Verdict::No;
        line.text += QStringLiteral(": the stream does not decode");
        line.fix = QStringLiteral("the camera's stream is broken; try another format");
    } else if (decodable && decoded.frames * 10 < frames * 9) {
        line.verdict = Verdict::Warn;
        line.fix = QStringLiteral("frames that do not decode: the camera's stream has errors");
    } else if (m_rate > 0 && fps < 0.8 * m_rate) {
        line.verdict = Verdict::Warn;
        line.fix = QStringLiteral("fewer frames than negotiated: the camera or the USB bus cannot keep up");
    }
    return line;
}

QString CameraCheck::verdictText(const QList<Line>& lines) const
{
    for (const Line& l : lines) {
        if (l.verdict == Verdict::No)
            return QStringLiteral("no: ") + l.text;
    }
    const QString source = m_usedSource.isEmpty() ? m_expectedSource : m_usedSource;
    QString text = QStringLiteral("ok: %1 records %2 %3x%4")
                       .arg(nodeName(*m_node), m_delivered)
                       .arg(m_width)
                       .arg(m_height);
    if (m_rate > 0)
        text += QStringLiteral(" at %1 fps").arg(m_rate, 0, 'g', 4);
    text += QStringLiteral(" from ") + sourceText(source, source == m_expectedSource ? m_sourceDevice : QString());
    QStringList warnings;
    for (const Line& l : lines) {
        if (l.verdict == Verdict::Warn)
            warnings << l.text;
    }
    if (!warnings.isEmpty())
        text += QStringLiteral("; but: ") + warnings.join(QStringLiteral("; "));
    return text;
}

int CameraCheck::run()
{
    QList<Line> lines;
    lines << checkNodes();
    if (m_node)
        lines << checkFormats();
    if (m_node && m_captureCodec >= 0) {
        lines << checkMemory() << checkControls() << checkRecording();
    }
    const QString verdict = verdictText(lines);
    const bool ok = verdict.startsWith(QLatin1String("ok"));
    if (m_options.json) {
        QJsonObject report;
        for (const Line& l : lines) {
            QJsonObject o = l.json;
            o.insert(QStringLiteral("verdict"), QLatin1String(verdictName(l.verdict)));
            o.insert(QStringLiteral("text"), l.text);
            o.insert(QStringLiteral("fix"), l.fix.isEmpty() ? QJsonValue() : QJsonValue(l.fix));
            o.insert(QStringLiteral("details"), QJsonArray::fromStringList(l.details));
            report.insert(l.key, o);
        }
        report.insert(QStringLiteral("verdict"), QJsonObject{{QStringLiteral("ok"), ok}, {QStringLiteral("text"), verdict}});
        std::printf("%s", QJsonDocument(report).toJson().constData());
    } else {
        for (const Line& l : lines) {
            std::printf("%-10s %-5s %s\n", qPrintable(l.key), verdictName(l.verdict), qPrintable(l.text));
            for (const QString& d : l.details)
                std::printf("%-16s %s\n", "", qPrintable(d));
            if (!l.fix.isEmpty())
                std::printf("%-16s fix: %s\n", "", qPrintable(l.fix));
        }
        std::printf("%-10s %s\n", "verdict", qPrintable(verdict));
    }
    std::fflush(stdout);
    return ok ? EXIT_OK : EXIT_CHECK_FAILED;
}
