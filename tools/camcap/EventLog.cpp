#include "EventLog.h"

#include <QDateTime>
#include <QJsonDocument>
#include <cstdio>

QString EventLog::now() { return QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs); }

void EventLog::report(const char* event, QJsonObject fields)
{
    if (!m_enabled)
        return;
    fields.insert(QStringLiteral("event"), QLatin1String(event));
    fields.insert(QStringLiteral("time"), now());
    const QByteArray line = QJsonDocument(fields).toJson(QJsonDocument::Compact);
    std::lock_guard<std::mutex> lock(m_mutex);
    std::fprintf(stdout, "%s\n", line.constData());
    std::fflush(stdout);
}
