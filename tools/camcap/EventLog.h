#pragma once
// --events: one JSON object per line on standard output as things happen (a file opened or
// closed, the camera lost or back, the disk full, a file removed), for a supervisor that
// reads while camcap runs.

#include <QJsonObject>
#include <QString>
#include <mutex>

class EventLog {
public:
    explicit EventLog(bool enabled) : m_enabled(enabled) {}
    bool enabled() const { return m_enabled; }
    // Adds "event" and "time" to `fields`; any thread.
    void report(const char* event, QJsonObject fields = {});

    // The wall-clock time now, ISO 8601 in UTC with milliseconds.
    static QString now();

private:
    const bool m_enabled;
    std::mutex m_mutex;
};
