// poll() and ppoll() on simulated video descriptors report what videobuf2's poll would:
// POLLIN for a filled buffer, POLLERR for a queue that is not streaming, has failed or was
// never given a buffer, and never POLLOUT. The eventfd behind the descriptor only says
// "something is ready" (and is always writable), so its answer is refined here; epoll sees
// the eventfd itself, with POLLOUT taken out of the interest set.

#include "Handle.h"
#include "RealLibc.h"
#include "Registry.h"

#include <cerrno>
#include <chrono>
#include <poll.h>
#include <sys/epoll.h>
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

// `wait(fds, remaining)` is the C library's poll with what is left of the timeout (null:
// none). A wake-up whose simulated events all turn out stale waits again.
template <typename Wait>
int routePoll(pollfd* fds, nfds_t n, std::optional<Clock::duration> timeout, Wait&& wait)
{
    std::vector<Watched> watched = simulatedIn(fds, n);
    if (watched.empty())
        return wait(fds, timeout);
    const bool forever = !timeout;
    const Clock::time_point deadline = Clock::now() + timeout.value_or(Clock::duration::zero());
    for (;;) {
        for (const Watched& w : watched)
            fds[w.index].events = short(w.requested & ~kWritable);
        std::optional<Clock::duration> left;
        if (!forever)
            left = std::max(Clock::duration::zero(), deadline - Clock::now());
        const int result = wait(fds, left);
        const int saved = errno;
        for (const Watched& w : watched)
            fds[w.index].events = w.requested;
        if (result <= 0) {
            errno = saved;
            return result;
        }
        int ready = result;
        for (const Watched& w : watched) {
            short& revents = fds[w.index].revents;
            if (!revents || (revents & POLLNVAL))
                continue;
            const short now = w.handle->pollEvents(w.requested).value_or(revents);
            revents = short(now & (w.requested | POLLERR | POLLHUP));
            if (!revents)
                --ready;
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
    return routePoll(fds, n, fromMilliseconds(timeout), [&](pollfd* f, auto left) {
        return real::libc().poll(f, n, toMilliseconds(left));
    });
}

SIMCAM_EXPORT int ppoll(pollfd* fds, nfds_t n, const timespec* timeout, const sigset_t* mask)
{
    return routePoll(fds, n, fromTimespec(timeout), [&](pollfd* f, auto left) {
        const timespec ts = left ? toTimespec(*left) : timespec{};
        return real::libc().ppoll(f, n, left ? &ts : nullptr, mask);
    });
}

// What fortified callers call when the array's size is known.
SIMCAM_EXPORT int __poll_chk(pollfd* fds, nfds_t n, int timeout, size_t fdsLength)
{
    return routePoll(fds, n, fromMilliseconds(timeout), [&](pollfd* f, auto left) {
        return real::libc().poll_chk(f, n, toMilliseconds(left), fdsLength);
    });
}

SIMCAM_EXPORT int __ppoll_chk(pollfd* fds, nfds_t n, const timespec* timeout,
                              const sigset_t* mask, size_t fdsLength)
{
    return routePoll(fds, n, fromTimespec(timeout), [&](pollfd* f, auto left) {
        const timespec ts = left ? toTimespec(*left) : timespec{};
        return real::libc().ppoll_chk(f, n, left ? &ts : nullptr, mask, fdsLength);
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
