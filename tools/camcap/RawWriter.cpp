#include "RawWriter.h"

#include <unistd.h>

#include <cstring>

RawWriter::RawWriter(int fd) : m_fd(fd), m_owned(fd == STDOUT_FILENO ? -1 : fd) {}

RawWriter::~RawWriter() { finish(); }

bool RawWriter::write(const Frame& frame)
{
    if (m_errno)
        return false;
    m_errno = outputfile::writeAll(m_fd, frame.data, frame.size, m_makeRoom);
    if (m_errno) {
        m_error = QString::fromLocal8Bit(strerror(m_errno));
        // A frame cut in half would be the file's last: it ends at the last whole one.
        outputfile::cutBack(m_fd, m_complete);
        return false;
    }
    m_complete += int64_t(frame.size);
    return true;
}

bool RawWriter::finish()
{
    if (m_owned && ::close(m_owned.release()) < 0 && !m_errno) {
        m_errno = errno;
        m_error = QString::fromLocal8Bit(strerror(errno));
    }
    return m_errno == 0;
}
