#include <dlfcn.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>

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

std::unique_ptr<FrameSink> openSink(outputfile::Created file, const StreamInfo& info, QString* error)
{
    if (info.container != QLatin1String("raw")) {
#ifdef CAMCAP_CONTAINERS
        const auto open = containerEntry(error);
        if (!open)
            return nullptr;
        return std::unique_ptr<FrameSink>(open(file.fd.release(), file.path, info, error));
#else
        *error = QStringLiteral("this camcap was built without container support (libavformat)");
        return nullptr;
#endif
    }
    return std::make_unique<RawWriter>(file.fd.release());
}
