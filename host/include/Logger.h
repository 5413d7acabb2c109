#pragma once
// The host's log facility. Levels: 0 ERROR, 1 WARN, 2 INFO, 4 DEBUG. Lines at or below the
// threshold go to stderr; every line, whatever its level, reaches the active captures.

#include <mutex>
#include <string>
#include <vector>

class Logger {
public:
    static void logger_printf(int level, const char* format, ...)
        __attribute__((format(printf, 2, 3)));

    static void setThreshold(int level);
    static int threshold();
};

struct LogLine {
    int level;
    std::string text;
};

// Collects every line logged while it exists (from any thread).
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines() const;
    // Number of captured lines containing `needle` (at `level`, when level >= 0).
    int count(const std::string& needle, int level = -1) const;
    bool contains(const std::string& needle, int level = -1) const
    {
        return count(needle, level) > 0;
    }
    void clear();

    void append(int level, const std::string& text);

private:
    mutable std::mutex m_mutex;
    std::vector<LogLine> m_lines;
};
