#include "RawWriter.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

RawWriter::RawWriter(int fd) : m_fd(fd), m_owned(fd == STDOUT_FILENO ? -1 : fd) {}

RawWriter::~RawWriter() { finish(); }

bool RawWriter::write(const Frame& frame)
{
    size_t done = 0;
    while (done < frame.size) {
        const ssize_t n = ::write(m_fd, frame.data + done, frame.size - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            m_error = QString::fromLocal8Bit(strerror(n < 0 ? errno : EIO));
            return false;
        }
        done += size_t(n);
    }
    return true;
}

bool RawWriter::finish()
{
    if (m_owned && ::close(m_owned.release()) < 0) {
        m_error = QString::fromLocal8Bit(strerror(errno));
        return false;
    }
    return true;
}
