#pragma once
// Lets stop() cut the capture thread's waits short: an eventfd that sits in the select set
// beside the camera, and a condition variable for the pause after a failed dequeue. When
// nobody raises it, both waits keep their full length.

#include <sys/eventfd.h>
#include <sys/select.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "UniqueFd.h"

class StopSignal {
public:
    StopSignal() : m_event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

    // Readable while raised; -1 if the kernel gave no eventfd (waits then run their length).
    int fd() const { return m_event.get(); }

    // Puts the descriptor into a select set, if there is one.
    void addTo(fd_set& set) const
    {
        if (m_event)
            FD_SET(m_event.get(), &set);
    }

    // True when select reported the descriptor readable: stop was asked for.
    bool isIn(const fd_set& set) const { return m_event && FD_ISSET(m_event.get(), &set); }

    void raise()
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_raised = true;
        }
        m_cond.notify_all();
        if (m_event) {
            const uint64_t one = 1;
            [[maybe_unused]] ssize_t n = ::write(m_event.get(), &one, sizeof one);
        }
    }

    void clear()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_raised = false;
        if (m_event) {
            uint64_t count;
            [[maybe_unused]] ssize_t n = ::read(m_event.get(), &count, sizeof count);
        }
    }

    bool raised()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_raised;
    }

    // Sleeps for `duration` or until raised; true when it slept the whole time.
    bool sleepFor(std::chrono::milliseconds duration)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return !m_cond.wait_for(lock, duration, [this] { return m_raised; });
    }

private:
    UniqueFd m_event;
    std::mutex m_mutex;
    std::condition_variable m_cond;
    bool m_raised = false;
};
