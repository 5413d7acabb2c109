// poll(), ppoll(), select() and pselect() on simulated video descriptors report what
// videobuf2's poll would: POLLIN for a filled buffer, POLLERR for a queue that is not
// streaming, has failed or was never given a buffer, POLLPRI for a pending V4L2 event, and
// never POLLOUT. The eventfd behind the descriptor only says "something is ready" (and is
// always writable), so its answer is refined here; a pending event wakes the wait through
// a second eventfd. select() is answered through poll, as the kernel does. epoll sees the
// stream's eventfd itself, with POLLOUT taken out of the interest set.

#include "Handle.h"
#include "RealLibc.h"
#include "Registry.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <vector>

#define SIMCAM_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

using namespace simcam;
using Clock = std::chrono::steady_clock;

constexpr short kWritable = POLLOUT | POLLWRNORM | POLLWRBAND;

struct Watched {
    size_t index;
    short requested;
    std::shared_ptr<Handle> handle;
};

std::vector<Watched> simulatedIn(pollfd* fds, nfds_t n)
{
    std::vector<Watched> watched;
    Registry& registry = Registry::instance();
    if (!registry.hasHandles())
        return watched;
    for (nfds_t i = 0; i < n; ++i)
        if (fds[i].fd >= 0)
            if (auto handle = registry.find(fds[i].fd); handle && handle->pollEvents(0))
                watched.push_back({i, fds[i].events, std::move(handle)});
    return watched;
}

// `wait(fds, n, remaining)` is the C library's poll with what is left of the timeout
// (null: none). A wake-up whose simulated events all turn out stale waits again.
template <typename Wait>
int routePoll(pollfd* fds, nfds_t n, std::optional<Clock::duration> timeout, Wait&& wait)
{
    std::vector<Watched> watched = simulatedIn(fds, n);
    if (watched.empty())
        return wait(fds, n, timeout);
    // The caller's entries, then the event descriptors of those that wait for POLLPRI.
    std::vector<pollfd> all(fds, fds + n);
    for (const Watched& w : watched)
        if (int events = w.handle->eventDescriptor(); events >= 0 && (w.requested & POLLPRI))
            all.push_back({events, POLLIN, 0});
    const bool forever = !timeout;
    const Clock::time_point deadline = Clock::now() + timeout.value_or(Clock::duration::zero());
    for (;;) {
        for (const Watched& w : watched)
            all[w.index].events = short(w.requested & ~kWritable);
        std::optional<Clock::duration> left;
        if (!forever)
            left = std::max(Clock::duration::zero(), deadline - Clock::now());
        const int result = wait(all.data(), all.size(), left);
        const int saved = errno;
        for (nfds_t i = 0; i < n; ++i)
            fds[i].revents = all[i].revents;
        if (result <= 0) {
            errno = saved;
            return result;
        }
        int ready = 0;
        for (nfds_t i = 0; i < n; ++i)
            ready += fds[i].revents != 0;
        const bool eventWoke = std::any_of(all.begin() + long(n), all.end(),
                                           [](const pollfd& p) { return p.revents != 0; });
        for (const Watched& w : watched) {
            short& revents = fds[w.index].revents;
            if ((!revents && !eventWoke) || (revents & POLLNVAL))
                continue;
            const bool counted = revents != 0;
            const short now = w.handle->pollEvents(w.requested).value_or(revents);
            revents = short(now & (w.requested | POLLERR | POLLHUP));
            ready += int(revents != 0) - int(counted);
        }
        if (ready > 0 || (!forever && Clock::now() >= deadline))
            return ready;
    }
}

std::optional<Clock::duration> fromMilliseconds(int timeout)
{
    if (timeout < 0)
        return std::nullopt;
    return std::chrono::milliseconds(timeout);
}

std::optional<Clock::duration> fromTimespec(const timespec* timeout)
{
    if (!timeout)
        return std::nullopt;
    return std::chrono::seconds(timeout->tv_sec) + std::chrono::nanoseconds(timeout->tv_nsec);
}

int toMilliseconds(std::optional<Clock::duration> d)
{
    if (!d)
        return -1;
    // Rounded up, so a short remainder does not turn into a busy loop.
    return int(std::chrono::ceil<std::chrono::milliseconds>(*d).count());
}

timespec toTimespec(Clock::duration d)
{
    const auto s = std::chrono::duration_cast<std::chrono::seconds>(d);
    return timespec{time_t(s.count()), long(std::chrono::nanoseconds(d - s).count())};
}

} // namespace

SIMCAM_EXPORT int poll(pollfd* fds, nfds_t n, int timeout)
{
    return routePoll(fds, n, fromMilliseconds(timeout), [](pollfd* f, nfds_t m, auto left) {
        return real::libc().poll(f, m, toMilliseconds(left));
    });
}

SIMCAM_EXPORT int ppoll(pollfd* fds, nfds_t n, const timespec* timeout, const sigset_t* mask)
{
    return routePoll(fds, n, fromTimespec(timeout), [&](pollfd* f, nfds_t m, auto left) {
        const timespec ts = left ? toTimespec(*left) : timespec{};
        return real::libc().ppoll(f, m, left ? &ts : nullptr, mask);
    });
}

// What fortified callers call when the array's size is known.
SIMCAM_EXPORT int __poll_chk(pollfd* fds, nfds_t n, int timeout, size_t fdsLength)
{
    return routePoll(fds, n, fromMilliseconds(timeout), [&](pollfd* f, nfds_t m, auto left) {
        // The caller's array was checked; the one waited on may be longer.
        return m == n ? real::libc().poll_chk(f, m, toMilliseconds(left), fdsLength)
                      : real::libc().poll(f, m, toMilliseconds(left));
    });
}

SIMCAM_EXPORT int __ppoll_chk(pollfd* fds, nfds_t n, const timespec* timeout,
                              const sigset_t* mask, size_t fdsLength)
{
    return routePoll(fds, n, fromTimespec(timeout), [&](pollfd* f, nfds_t m, auto left) {
        const timespec ts = left ? toTimespec(*left) : timespec{};
        // (A C library with 64-bit time may lack the checked variant.)
        return m == n && real::libc().ppoll_chk
                   ? real::libc().ppoll_chk(f, m, left ? &ts : nullptr, mask, fdsLength)
                      : real::libc().ppoll(f, m, left ? &ts : nullptr, mask);
    });
}

SIMCAM_EXPORT int epoll_ctl(int epfd, int op, int fd, epoll_event* event) noexcept
{
    Registry& registry = Registry::instance();
    if (event && (op == EPOLL_CTL_ADD || op == EPOLL_CTL_MOD) && registry.hasHandles()) {
        if (auto handle = registry.find(fd); handle && handle->pollEvents(0)) {
            // A capture queue is never writable; the eventfd always is.
            epoll_event narrowed = *event;
            narrowed.events &= ~uint32_t(EPOLLOUT | EPOLLWRNORM | EPOLLWRBAND);
            return real::libc().epoll_ctl(epfd, op, fd, &narrowed);
        }
    }
    return real::libc().epoll_ctl(epfd, op, fd, event);
}

namespace {

bool simulatedInSets(int nfds, const fd_set* r, const fd_set* w, const fd_set* e)
{
    Registry& registry = Registry::instance();
    if (!registry.hasHandles())
        return false;
    for (int fd = 0; fd < std::min(nfds, FD_SETSIZE); ++fd)
        if ((r && FD_ISSET(fd, r)) || (w && FD_ISSET(fd, w)) || (e && FD_ISSET(fd, e)))
            if (auto handle = registry.find(fd); handle && handle->pollEvents(0))
                return true;
    return false;
}

// The sets as poll entries, and the answer read back as the kernel's select reads a poll
// mask: an error or hang-up counts as readable, an error as writable, POLLPRI as
// exceptional. Returns the number of bits set; `left` (if given) receives the time not
// slept, which Linux leaves in select's timeout.
int routeSelect(int nfds, fd_set* r, fd_set* w, fd_set* e, std::optional<Clock::duration> timeout,
                const sigset_t* mask, std::chrono::microseconds* left = nullptr)
{
    const Clock::time_point start = Clock::now();
    std::vector<pollfd> fds;
    for (int fd = 0; fd < std::min(nfds, FD_SETSIZE); ++fd) {
        short events = 0;
        if (r && FD_ISSET(fd, r))
            events |= POLLIN;
        if (w && FD_ISSET(fd, w))
            events |= POLLOUT;
        if (e && FD_ISSET(fd, e))
            events |= POLLPRI;
        if (events)
            fds.push_back({fd, events, 0});
    }
    const int result = routePoll(fds.data(), fds.size(), timeout, [&](pollfd* f, nfds_t m, auto rest) {
        const timespec ts = rest ? toTimespec(*rest) : timespec{};
        return real::libc().ppoll(f, m, rest ? &ts : nullptr, mask);
    });
    if (left && timeout)
        *left = std::chrono::duration_cast<std::chrono::microseconds>(
            std::max(Clock::duration::zero(), *timeout - (Clock::now() - start)));
    if (result < 0)
        return result;
    for (const pollfd& p : fds) {
        if (p.revents & POLLNVAL) {
            errno = EBADF;
            return -1;
        }
    }
    for (fd_set* set : {r, w, e})
        if (set)
            FD_ZERO(set);
    int count = 0;
    auto mark = [&](fd_set* set, int fd, bool on) {
        if (set && on) {
            FD_SET(fd, set);
            ++count;
        }
    };
    for (const pollfd& p : fds) {
        mark(r, p.fd, (p.events & POLLIN) && (p.revents & (POLLIN | POLLRDNORM | POLLHUP | POLLERR)));
        mark(w, p.fd, (p.events & POLLOUT) && (p.revents & (POLLOUT | POLLWRNORM | POLLERR)));
        mark(e, p.fd, (p.events & POLLPRI) && (p.revents & POLLPRI));
    }
    return count;
}

} // namespace

SIMCAM_EXPORT int select(int nfds, fd_set* r, fd_set* w, fd_set* e, timeval* timeout)
{
    if (!simulatedInSets(nfds, r, w, e))
        return real::libc().select(nfds, r, w, e, timeout);
    std::optional<Clock::duration> wait;
    if (timeout)
        wait = std::chrono::seconds(timeout->tv_sec) + std::chrono::microseconds(timeout->tv_usec);
    std::chrono::microseconds left{};
    const int result = routeSelect(nfds, r, w, e, wait, nullptr, &left);
    if (timeout) {
        timeout->tv_sec = time_t(left.count() / 1000000);
        timeout->tv_usec = suseconds_t(left.count() % 1000000);
    }
    return result;
}

SIMCAM_EXPORT int pselect(int nfds, fd_set* r, fd_set* w, fd_set* e, const timespec* timeout,
                          const sigset_t* mask)
{
    if (!simulatedInSets(nfds, r, w, e))
        return real::libc().pselect(nfds, r, w, e, timeout, mask);
    return routeSelect(nfds, r, w, e, fromTimespec(timeout), mask);
}
