#pragma once
// The element's log lines. With -v they go to stderr as they come. Otherwise they are held
// and shown beside the failure they explain, each distinct line once with how often it
// came: a stalled camera makes the element log every second, which says nothing more.

#include <string>
#include <utility>
#include <vector>

#include "Logger.h"

class ElementLog {
public:
    // `live`: the logger prints every line already (-v); nothing is held.
    explicit ElementLog(bool live);
    // Prints the held lines on stderr and forgets them.
    void show();
    // Folds the captured lines into the held ones; called now and then, so a long run
    // keeps a bounded set.
    void collect();

private:
    static constexpr size_t kMaxLines = 50;
    const bool m_live;
    LogCapture m_capture;
    std::vector<std::pair<std::string, int>> m_held;  // line, times
    int m_dropped = 0;
};
