#include "SegmentWriter.h"

#include <QRegularExpression>
#include <ctime>

SegmentWriter::SegmentWriter(const QString& pattern, double seconds, const StreamInfo& info)
    : m_pattern(pattern), m_intervalUs(int64_t(seconds * 1e6)), m_info(info)
{
}

QString SegmentWriter::fileName(const QString& pattern, int index)
{
    static const QRegularExpression indexField(QStringLiteral("%(0?\\d*)d"));
    const QRegularExpressionMatch m = indexField.match(pattern);
    if (m.hasMatch()) {
        const QString width = m.captured(1);
        const QChar fill = width.startsWith(QLatin1Char('0')) ? QLatin1Char('0') : QLatin1Char(' ');
        const QString number = QStringLiteral("%1").arg(index, width.toInt(), 10, fill);
        return QString(pattern).replace(m.capturedStart(), m.capturedLength(), number);
    }
    if (pattern.contains(QLatin1Char('%'))) {
        char text[4096];
        const std::time_t now = std::time(nullptr);
        std::tm local{};
        localtime_r(&now, &local);
        const size_t n = std::strftime(text, sizeof text, pattern.toLocal8Bit().constData(), &local);
        return QString::fromLocal8Bit(text, int(n));
    }
    const int dot = pattern.lastIndexOf(QLatin1Char('.'));
    const int slash = pattern.lastIndexOf(QLatin1Char('/'));
    const QString number = QStringLiteral("-%1").arg(index, 3, 10, QLatin1Char('0'));
    return dot > slash + 1 ? pattern.left(dot) + number + pattern.mid(dot) : pattern + number;
}

bool SegmentWriter::open(QString* error)
{
    const QString name = fileName(m_pattern, m_files.size());
    m_current = openSink(name, m_info, error);
    if (!m_current)
        return false;
    m_files << name;
    m_fresh = true;
    return true;
}

bool SegmentWriter::next()
{
    if (!m_current->finish()) {
        m_error = m_current->error();
        return false;
    }
    QString error;
    if (!open(&error)) {
        m_error = QStringLiteral("%1: %2").arg(fileName(m_pattern, m_files.size()), error);
        return false;
    }
    return true;
}

bool SegmentWriter::write(const Frame& frame)
{
    if (!m_current)
        return false;
    if (!m_fresh && frame.key && frame.timeUs - m_startUs >= m_intervalUs && !next())
        return false;
    if (m_fresh)
        m_startUs = frame.timeUs;
    m_fresh = false;
    if (!m_current->write(frame)) {
        m_error = m_current->error();
        return false;
    }
    return true;
}

bool SegmentWriter::finish()
{
    if (m_current && !m_current->finish()) {
        m_error = m_current->error();
        return false;
    }
    return true;
}
