#include "Logger.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace {

std::atomic<int> g_threshold{2};

// Captures are few and short-lived (tests, the tool); a plain list under a lock is enough.
std::mutex g_capturesMutex;
std::vector<LogCapture*>& captures()
{
    static std::vector<LogCapture*> list;
    return list;
}

} // namespace

void Logger::logger_printf(int level, const char* format, ...)
{
    char stackBuf[1024];
    std::string heapBuf;
    const char* text = stackBuf;

    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    const int n = std::vsnprintf(stackBuf, sizeof stackBuf, format, args);
    va_end(args);
    if (n >= int(sizeof stackBuf)) {
        heapBuf.resize(size_t(n) + 1);
        std::vsnprintf(heapBuf.data(), heapBuf.size(), format, copy);
        heapBuf.resize(size_t(n));
        text = heapBuf.c_str();
    }
    va_end(copy);
    if (n < 0)
        return;

    if (level <= g_threshold.load(std::memory_order_relaxed))
        std::fputs(text, stderr);

    std::lock_guard<std::mutex> lock(g_capturesMutex);
    for (LogCapture* capture : captures())
        capture->append(level, text);
}

void Logger::setThreshold(int level) { g_threshold.store(level); }
int Logger::threshold() { return g_threshold.load(); }

LogCapture::LogCapture()
{
    std::lock_guard<std::mutex> lock(g_capturesMutex);
    captures().push_back(this);
}

LogCapture::~LogCapture()
{
    std::lock_guard<std::mutex> lock(g_capturesMutex);
    auto& list = captures();
    list.erase(std::remove(list.begin(), list.end(), this), list.end());
}

void LogCapture::append(int level, const std::string& text)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.push_back({level, text});
}

std::vector<LogLine> LogCapture::lines() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
}

int LogCapture::count(const std::string& needle, int level) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return int(std::count_if(m_lines.begin(), m_lines.end(), [&](const LogLine& line) {
        return (level < 0 || line.level == level) && line.text.find(needle) != std::string::npos;
    }));
}

void LogCapture::clear()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.clear();
}
