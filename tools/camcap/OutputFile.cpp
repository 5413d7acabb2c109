#include "OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <cerrno>
#include <cstring>

#include "NamePattern.h"

namespace outputfile {

namespace {

int openExclusive(const QString& path)
{
    return ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
}

QString errnoText(int error) { return QString::fromLocal8Bit(strerror(error)); }

} // namespace

std::optional<Created> create(const QString& name, Taken taken, QString* error)
{
    const QByteArray path = QFile::encodeName(name);
    struct stat st;
    if (::stat(path.constData(), &st) == 0 && S_ISCHR(st.st_mode)) {
        const int fd = ::open(path.constData(), O_WRONLY | O_CLOEXEC);
        if (fd < 0) {
            *error = errnoText(errno);
            return std::nullopt;
        }
        return Created{UniqueFd(fd), name, false};
    }
    if (taken == Taken::Replace && ::lstat(path.constData(), &st) == 0 && !S_ISDIR(st.st_mode) &&
        ::unlink(path.constData()) < 0) {
        *error = errnoText(errno);
        return std::nullopt;
    }
    QString candidate = name;
    int fd = openExclusive(candidate);
    for (int n = 1; fd < 0 && errno == EEXIST && taken == Taken::Rename && n < 10000; ++n) {
        candidate = NamePattern::withSuffix(name, n);
        fd = openExclusive(candidate);
    }
    if (fd < 0) {
        *error = errno == EEXIST && taken == Taken::Refuse
                     ? QStringLiteral("it exists; --overwrite replaces it")
                     : errnoText(errno);
        return std::nullopt;
    }
    return Created{UniqueFd(fd), candidate, true};
}

int writeAll(int fd, const uint8_t* data, size_t size, const MakeRoom& makeRoom)
{
    size_t done = 0;
    while (done < size) {
        const ssize_t n = ::write(fd, data + done, size - done);
        if (n > 0) {
            done += size_t(n);
            continue;
        }
        const int error = n < 0 ? errno : EIO;
        if (error == EINTR)
            continue;
        if (!(isDiskFull(error) && makeRoom && makeRoom()))
            return error;
    }
    return 0;
}

void cutBack(int fd, int64_t length)
{
    struct stat st;
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        [[maybe_unused]] const int ignored = ::ftruncate(fd, length);
        ::lseek(fd, length, SEEK_SET);
    }
}

} // namespace outputfile
