#include <fcntl.h>

#include <QFile>
#include <cerrno>
#include <cstring>

#include "FrameSink.h"
#include "RawWriter.h"
#ifdef CAMCAP_CONTAINERS
#include "ContainerWriter.h"
#endif

std::unique_ptr<FrameSink> openSink(const QString& path, const StreamInfo& info, QString* error)
{
    if (info.container != QLatin1String("raw")) {
#ifdef CAMCAP_CONTAINERS
        return ContainerWriter::open(path, info, error);
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
