#include "FileSeries.h"

#include <unistd.h>

#include <QFile>
#include <QJsonObject>
#include <ctime>

#include "EventLog.h"

FileSeries::FileSeries(const Settings& settings, EventLog& events)
    : m_settings(settings),
      m_events(events),
      m_names(settings.pattern, settings.segmentSeconds > 0),
      m_retention(m_names, settings.keepFreeBytes, settings.maxFiles),
      m_intervalUs(int64_t(settings.segmentSeconds * 1e6))
{
}

FileSeries::~FileSeries() { finish(); }

bool FileSeries::open(QString* error) { return openNext(error); }

bool FileSeries::openNext(QString* error)
{
    std::optional<outputfile::Created> file;
    if (m_settings.pattern == QLatin1String("-")) {
        file = outputfile::Created{UniqueFd(STDOUT_FILENO), QStringLiteral("-"), false};
    } else {
        for (const QString& removed : m_retention.beforeNewFile(m_made, QString())) {
            m_removed << removed;
            m_events.report("file-removed", {{QStringLiteral("file"), removed}});
        }
        const QString name = m_names.name(m_index, std::time(nullptr));
        // A single file the user named may be refused or replaced; every later one, and
        // every segment, takes the next free name instead.
        const bool single = m_settings.segmentSeconds <= 0 && m_made.isEmpty();
        const auto taken = !single                ? outputfile::Taken::Rename
                           : m_settings.overwrite ? outputfile::Taken::Replace
                                                  : outputfile::Taken::Refuse;
        file = outputfile::create(name, taken, error);
        if (!file) {
            *error = QStringLiteral("%1: %2").arg(name, *error);
            return false;
        }
    }
    m_path = file->path;
    m_regular = file->regular;
    m_file = std::move(file);
    ++m_index;
    m_frames = 0;
    m_bytes = 0;
    m_made << m_path;
    return true;
}

void FileSeries::setFrameSize(int width, int height)
{
    m_width = width;
    m_height = height;
}

bool FileSeries::startWriter(QString* error)
{
    StreamInfo info = m_settings.info;
    if (m_width > 0) {
        info.width = m_width;
        info.height = m_height;
    }
    m_current = openSink(std::move(*m_file), info, error);
    m_file.reset();
    if (!m_current) {
        *error = QStringLiteral("%1: %2").arg(m_path, *error);
        return false;
    }
    m_current->setMakeRoom([this] { return makeRoom(); });
    // A file that never gets a frame is removed unseen; one that does, opens here.
    m_events.report("file-opened", {{QStringLiteral("file"), m_path}});
    return true;
}

bool FileSeries::makeRoom()
{
    const QString removed = m_retention.removeOldest(m_made, m_path);
    if (removed.isEmpty())
        return false;
    m_removed << removed;
    m_events.report("file-removed", {{QStringLiteral("file"), removed}});
    return true;
}

bool FileSeries::closeCurrent()
{
    if (!m_current && !m_file)
        return true;
    const bool ok = !m_current || m_current->finish();
    if (!ok) {
        m_error = m_current->error();
        m_errno = m_current->diskFull() ? ENOSPC : EIO;
    }
    m_current.reset();
    m_file.reset();
    if (m_frames == 0 && m_regular) {
        ::unlink(QFile::encodeName(m_path).constData());
    } else {
        m_files << m_path;
        m_events.report("file-closed", {{QStringLiteral("file"), m_path},
                                      {QStringLiteral("frames"), double(m_frames)},
                                      {QStringLiteral("bytes"), double(m_bytes)}});
    }
    return ok;
}

bool FileSeries::write(const Frame& frame)
{
    if (!m_error.isEmpty())
        return false;
    // A file starts decodable: after a break, at the next key frame.
    const bool open = m_current || m_file;
    if (!open && !frame.key)
        return true;
    if (m_firstUs < 0)
        m_firstUs = frame.timeUs;
    bool next = !open;
    if (m_intervalUs > 0 && frame.key && m_frames > 0) {
        // A key frame a little early for its boundary still opens the new segment.
        const int64_t early = frame.timeUs - m_firstUs + frame.intervalUs / 2;
        if (early >= m_boundary * m_intervalUs) {
            m_boundary = early / m_intervalUs + 1;
            next = true;
        }
    }
    QString error;
    if ((next && (!closeCurrent() || !openNext(&error))) || (!m_current && !startWriter(&error))) {
        if (m_error.isEmpty())
            m_error = error;
        return false;
    }
    if (!m_current->write(frame)) {
        m_error = m_current->error();
        m_errno = m_current->diskFull() ? ENOSPC : EIO;
        if (diskFull())
            m_events.report("disk-full", {{QStringLiteral("file"), m_path}});
        closeCurrent();
        return false;
    }
    ++m_frames;
    m_bytes += frame.size;
    return true;
}

void FileSeries::breakFile() { closeCurrent(); }

bool FileSeries::finish()
{
    const bool ok = closeCurrent();
    return ok && m_error.isEmpty();
}
