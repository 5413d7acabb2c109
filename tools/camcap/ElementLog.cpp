#include "ElementLog.h"

#include <cstdio>

ElementLog::ElementLog(bool live) : m_live(live) {}

void ElementLog::collect()
{
    for (LogLine& line : m_capture.lines()) {
        if (line.level > 1)  // not a problem
            continue;
        std::string text = line.text;
        while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
            text.pop_back();
        bool seen = false;
        for (auto& held : m_held)
            if (held.first == text && (seen = true))
                ++held.second;
        if (!seen && m_held.size() < kMaxLines)
            m_held.emplace_back(text, 1);
        else if (!seen)
            ++m_dropped;
    }
    m_capture.clear();
}

void ElementLog::show()
{
    collect();
    for (const auto& [text, times] : m_live ? decltype(m_held)() : m_held) {
        if (times > 1)
            std::fprintf(stderr, "camcap: element: %s (%d times)\n", text.c_str(), times);
        else
            std::fprintf(stderr, "camcap: element: %s\n", text.c_str());
    }
    if (m_dropped)
        std::fprintf(stderr, "camcap: element: ... and %d more lines\n", m_dropped);
    m_held.clear();
    m_dropped = 0;
}
