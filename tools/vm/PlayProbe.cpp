// vm-play-probe: loads the camera element as the host does and calls play() a number of
// times in one process, letting the event loop run between attempts so the element's
// queued work (a USB reset) happens as it would in the host. Prints one line per attempt
// and the descriptors the process holds before the first and after the last attempt,
// so a scenario can tell a failing play() from one that also leaks.
//
//   vm-play-probe [--plugin PATH] [--format h264|mjpeg|hevc] [--size WxH]
//                 [--attempts N] [--settle-ms MS]
//   vm-play-probe --fragment-mb MB     holds MB of memory fragmented until killed

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QPluginLoader>
#include <cstdio>
#include <set>
#include <string>

#include "IMediaElement.h"
#include "Logger.h"
#include "MediaFormat.h"
#include "UniqueFd.h"

namespace {

// Descriptor number -> what it points at.
std::set<std::string> openDescriptors()
{
    std::set<std::string> result;
    DIR* dir = opendir("/proc/self/fd");
    if (!dir)
        return result;
    const int own = dirfd(dir);
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.' || std::atoi(entry->d_name) == own)
            continue;
        char target[512] = {};
        const std::string path = std::string("/proc/self/fd/") + entry->d_name;
        const ssize_t n = readlink(path.c_str(), target, sizeof target - 1);
        result.insert(std::string(entry->d_name) + " -> " + (n > 0 ? target : "?"));
    }
    closedir(dir);
    return result;
}

void runEvents(int ms)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < ms) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        usleep(10000);
    }
}

int codecOf(const QString& name)
{
    if (name == QLatin1String("h264"))
        return CODEC_TYPE_H264;
    if (name == QLatin1String("mjpeg"))
        return CODEC_TYPE_MJPEG;
    if (name == QLatin1String("hevc"))
        return CODEC_TYPE_HEVC;
    return CODEC_TYPE_NONE;
}

// In a freshly booted machine consecutive page allocations are often physically
// consecutive, so memory a driver needs in one contiguous chunk can be so by chance. This
// touches a memfd of MB whole, then punches out every other page: the freed pages cannot
// merge with their held neighbours and are the first the kernel hands out next. Prints
// "fragmented" once done and holds the memory until killed.
int holdFragmented(int mb)
{
    const long page = sysconf(_SC_PAGESIZE);
    const size_t bytes = size_t(mb) << 20;
    const UniqueFd fd(memfd_create("fragment", MFD_CLOEXEC));
    if (!fd || ftruncate(fd.get(), off_t(bytes)) != 0) {
        std::perror("vm-play-probe: memfd");
        return 1;
    }
    void* map = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (map == MAP_FAILED) {
        std::perror("vm-play-probe: mmap");
        return 1;
    }
    for (size_t at = 0; at < bytes; at += size_t(page))
        static_cast<char*>(map)[at] = 1;
    munmap(map, bytes);
    size_t freed = 0;
    for (size_t at = 0; at < bytes; at += 2 * size_t(page))
        freed += fallocate(fd.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, off_t(at), page) == 0;
    std::printf("fragmented: %zu single pages free\n", freed);
    std::fflush(stdout);
    for (;;)
        pause();
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addHelpOption();
    const QString defaultPlugin =
        QDir(QCoreApplication::applicationDirPath()).absoluteFilePath(QStringLiteral("../plugins/libV4LCameraCapturePlugin.so"));
    QCommandLineOption plugin(QStringLiteral("plugin"), QStringLiteral("Plug-in file."), QStringLiteral("path"), defaultPlugin);
    QCommandLineOption format(QStringLiteral("format"), QStringLiteral("h264, mjpeg or hevc."), QStringLiteral("codec"),
                              QStringLiteral("h264"));
    QCommandLineOption size(QStringLiteral("size"), QStringLiteral("Picture size."), QStringLiteral("WxH"),
                            QStringLiteral("640x480"));
    QCommandLineOption attempts(QStringLiteral("attempts"), QStringLiteral("play() calls."), QStringLiteral("n"),
                                QStringLiteral("1"));
    QCommandLineOption settle(QStringLiteral("settle-ms"), QStringLiteral("Event loop time after each attempt."),
                              QStringLiteral("ms"), QStringLiteral("300"));
    QCommandLineOption fragment(QStringLiteral("fragment-mb"), QStringLiteral("Hold memory fragmented until killed."),
                                QStringLiteral("MB"));
    parser.addOptions({plugin, format, size, attempts, settle, fragment});
    parser.process(app);
    if (parser.isSet(fragment))
        return holdFragmented(parser.value(fragment).toInt());

    const QStringList wh = parser.value(size).split(QLatin1Char('x'));
    const int codec = codecOf(parser.value(format));
    const int count = parser.value(attempts).toInt();
    if (wh.size() != 2 || codec == CODEC_TYPE_NONE || count <= 0) {
        std::fprintf(stderr, "vm-play-probe: bad arguments\n");
        return 2;
    }
    Logger::setThreshold(4);  // every element line to stderr: the scenario greps them

    QPluginLoader loader(parser.value(plugin));
    auto* element = qobject_cast<IMediaElement*>(loader.instance());
    if (!element) {
        std::fprintf(stderr, "vm-play-probe: %s\n", qPrintable(loader.errorString()));
        return 3;
    }
    registerMediaFormatMetaTypes();
    element->initialize();
    element->start();
    MediaFormat request;
    request.majorType = MAJOR_TYPE_VIDEO;
    request.minorType = MINOR_TYPE_CODED;
    request.codecType = codec;
    request.width = wh[0].toInt();
    request.height = wh[1].toInt();
    element->setAttribute(ATTR_CAM_SETFORMAT, QVariant::fromValue(request));

    const std::set<std::string> before = openDescriptors();
    int failures = 0;
    for (int i = 1; i <= count; ++i) {
        const int rc = element->play();
        std::printf("play %d of %d: %d\n", i, count, rc);
        std::fflush(stdout);
        if (rc == 0)
            element->stop();
        else
            ++failures;
        runEvents(parser.value(settle).toInt());
    }
    const std::set<std::string> after = openDescriptors();
    std::printf("descriptors before: %zu, after: %zu\n", before.size(), after.size());
    for (const std::string& fd : after) {
        if (!before.count(fd))
            std::printf("leaked descriptor: %s\n", fd.c_str());
    }
    std::printf("play failures: %d of %d\n", failures, count);
    std::fflush(stdout);
    element->stop();
    delete element;
    return 0;
}
