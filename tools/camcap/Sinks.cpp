#include <dlfcn.h>
#include <fcntl.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <cerrno>
#include <cstring>

#include "FrameSink.h"
#include "RawWriter.h"

namespace {

#ifdef CAMCAP_CONTAINERS
// The container module beside the tool, loaded on first use and kept for the process's
// life (libavformat registers state that must not be unloaded under it).
decltype(&camcap_open_container) containerEntry(QString* error)
{
    struct Module {
        void* entry = nullptr;
        QString error;
    };
    static const Module module = [] {
        const QString path = QDir(QCoreApplication::applicationDirPath())
                                 .absoluteFilePath(QStringLiteral(CAMCAP_CONTAINERS_RELPATH));
        Module m;
        if (void* handle = dlopen(QFile::encodeName(path).constData(), RTLD_NOW | RTLD_LOCAL))
            m.entry = dlsym(handle, "camcap_open_container");
        if (!m.entry)
            m.error = QStringLiteral("container support could not be loaded: %1").arg(QString::fromLocal8Bit(dlerror()));
        return m;
    }();
    *error = module.error;
    return reinterpret_cast<decltype(&camcap_open_container)>(module.entry);
}
#endif

} // namespace

std::unique_ptr<FrameSink> openSink(const QString& path, const StreamInfo& info, QString* error)
{
    if (info.container != QLatin1String("raw")) {
#ifdef CAMCAP_CONTAINERS
        const auto open = containerEntry(error);
        return std::unique_ptr<FrameSink>(open ? open(path, info, error) : nullptr);
#else
        *error = QStringLiteral("this camcap was built without container support (libavformat)");
        return nullptr;
#endif
    }
    if (path == QLatin1String("-"))
        return std::make_unique<RawWriter>(STDOUT_FILENO);
    const int fd = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) {
        *error = QString::fromLocal8Bit(strerror(errno));
        return nullptr;
    }
    return std::make_unique<RawWriter>(fd);
}
