// The C library entry points libsimcam replaces. Each one forwards to the C library unless
// a model is active and the path or descriptor is one the model simulates.
//
// The large-file and 64-bit-time redirections of the C headers must be off here: every
// variant is defined under its own name below.
#undef _FORTIFY_SOURCE
#undef _FILE_OFFSET_BITS
#undef _TIME_BITS

#include "ActiveModel.h"
#include "DeviceStat.h"
#include "HandleFactory.h"
#include "Interposer.h"
#include "RealLibc.h"
#include "Registry.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/ioctl.h>
#include <linux/usbdevice_fs.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#define SIMCAM_EXPORT extern "C" __attribute__((visibility("default")))

namespace simcam {

bool& interposerProbeSeen()
{
    static thread_local bool seen = false;
    return seen;
}

} // namespace simcam

namespace {

using namespace simcam;

std::shared_ptr<ActiveModel> activeModelFor(const char* path)
{
    if (!maySimulate(path))
        return nullptr;
    Registry& registry = Registry::instance();
    return registry.active() ? registry.model() : nullptr;
}

// The shadow path standing in for `path` under this use, or null to use `path` itself.
// The returned string lives in `storage`.
const char* shadowed(const char* path, PathUse use, std::string& storage)
{
    auto model = activeModelFor(path);
    if (!model)
        return path;
    if (auto shadow = model->shadowPath(path, use)) {
        storage = std::move(*shadow);
        return storage.c_str();
    }
    return path;
}

int fail(int error)
{
    errno = error;
    return -1;
}

int openVideoNode(const std::shared_ptr<NodeState>& node, int flags)
{
    Registry& registry = Registry::instance();
    int error = 0;
    int fd = -1;
    if (node->camera->unplugged())
        error = ENOENT;
    else if (int e = node->faults().openErrno)
        error = e;
    else {
        // A real kernel object, so the caller's select()/poll() work unchanged.
        fd = eventfd(0, EFD_NONBLOCK | ((flags & O_CLOEXEC) ? EFD_CLOEXEC : 0));
        if (fd < 0)
            error = errno;
        else
            registry.add(fd, makeVideoHandle(fd, node, (flags & O_NONBLOCK) != 0,
                                             registry.recorder()));
    }
    registry.recorder().open(node->path, flags, fd, error);
    return error ? fail(error) : fd;
}

int openUsbNode(const std::shared_ptr<CameraState>& camera, const char* path, int flags)
{
    Registry& registry = Registry::instance();
    int error = 0;
    int fd = -1;
    if (camera->config.usbOpenErrno)
        error = camera->config.usbOpenErrno;
    else if ((flags & O_ACCMODE) == O_RDONLY)
        error = EACCES; // resetting needs write access
    else {
        fd = eventfd(0, EFD_NONBLOCK | ((flags & O_CLOEXEC) ? EFD_CLOEXEC : 0));
        if (fd < 0)
            error = errno;
        else
            registry.add(fd, makeUsbHandle(path, camera, registry.recorder()));
    }
    registry.recorder().open(path, flags, fd, error);
    return error ? fail(error) : fd;
}

// Decides what an open of `path` meets; `forward(p)` opens p with the C library.
template <typename Forward>
int routeOpen(const char* path, int flags, Forward&& forward)
{
    if (path && std::strcmp(path, kInterposerProbePath) == 0) {
        interposerProbeSeen() = true;
        return fail(ENOENT);
    }
    auto model = activeModelFor(path);
    if (!model)
        return forward(path);
    if (auto shadow = model->shadowPath(path, PathUse::Open))
        return forward(shadow->c_str());
    if (auto node = model->nodeByPath(path))
        return openVideoNode(node, flags);
    if (auto camera = model->cameraByUsbPath(path))
        return openUsbNode(camera, path, flags);
    if (isCameraDevicePath(path)) {
        // The host's own cameras stay out of a simulated run.
        Registry::instance().recorder().open(path, flags, -1, ENOENT);
        return fail(ENOENT);
    }
    return forward(path);
}

bool needsMode(int flags)
{
    return (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE;
}

template <typename Fn, typename... Args>
auto forwardOr(Fn fn, Args... args) -> decltype(fn(args...))
{
    if (!fn) {
        errno = ENOSYS;
        return decltype(fn(args...))(-1);
    }
    return fn(args...);
}

} // namespace

#define READ_MODE(flags)                                                                        \
    mode_t mode = 0;                                                                            \
    if (needsMode(flags)) {                                                                     \
        va_list ap;                                                                             \
        va_start(ap, flags);                                                                    \
        mode = va_arg(ap, mode_t);                                                              \
        va_end(ap);                                                                             \
    }

SIMCAM_EXPORT int open(const char* path, int flags, ...)
{
    READ_MODE(flags)
    return routeOpen(path, flags, [&](const char* p) { return real::libc().open(p, flags, mode); });
}

SIMCAM_EXPORT int open64(const char* path, int flags, ...)
{
    READ_MODE(flags)
    return routeOpen(path, flags, [&](const char* p) { return real::libc().open64(p, flags, mode); });
}

SIMCAM_EXPORT int openat(int dirfd, const char* path, int flags, ...)
{
    READ_MODE(flags)
    return routeOpen(path, flags,
                     [&](const char* p) { return real::libc().openat(dirfd, p, flags, mode); });
}

SIMCAM_EXPORT int openat64(int dirfd, const char* path, int flags, ...)
{
    READ_MODE(flags)
    return routeOpen(path, flags,
                     [&](const char* p) { return real::libc().openat64(dirfd, p, flags, mode); });
}

// What fortified callers use for open with non-constant flags.
SIMCAM_EXPORT int __open_2(const char* path, int flags)
{
    return routeOpen(path, flags, [&](const char* p) { return forwardOr(real::libc().open_2, p, flags); });
}

SIMCAM_EXPORT int __open64_2(const char* path, int flags)
{
    return routeOpen(path, flags, [&](const char* p) { return forwardOr(real::libc().open64_2, p, flags); });
}

SIMCAM_EXPORT int __openat_2(int dirfd, const char* path, int flags)
{
    return routeOpen(path, flags,
                     [&](const char* p) { return forwardOr(real::libc().openat_2, dirfd, p, flags); });
}

SIMCAM_EXPORT int __openat64_2(int dirfd, const char* path, int flags)
{
    return routeOpen(path, flags,
                     [&](const char* p) { return forwardOr(real::libc().openat64_2, dirfd, p, flags); });
}

SIMCAM_EXPORT int close(int fd)
{
    Registry& registry = Registry::instance();
    if (registry.hasHandles())
        if (auto handle = registry.take(fd))
            handle->shutdown(false);
    return real::libc().close(fd);
}

namespace {

// Forgets simulated `fd` before its number is reused by dup2/dup3, as close() would.
void closingImplicitly(int fd)
{
    Registry& registry = Registry::instance();
    if (registry.hasHandles())
        if (auto handle = registry.take(fd))
            handle->shutdown(false);
}

int duplicated(int oldFd, int newFd)
{
    if (newFd >= 0 && Registry::instance().hasHandles())
        Registry::instance().alias(oldFd, newFd);
    return newFd;
}

template <typename Fcntl>
int routeFcntl(Fcntl fn, int fd, int cmd, void* arg)
{
    // O_NONBLOCK is the device's to follow; the eventfd behind it stays non-blocking.
    if ((cmd == F_GETFL || cmd == F_SETFL) && Registry::instance().hasHandles()) {
        if (auto handle = Registry::instance().find(fd); handle && handle->nonBlocking()) {
            const long flags = long(reinterpret_cast<intptr_t>(arg));
            const int result = forwardOr(fn, fd, cmd,
                                         cmd == F_SETFL ? reinterpret_cast<void*>(flags | O_NONBLOCK) : arg);
            if (result < 0)
                return result;
            if (cmd == F_SETFL) {
                handle->setNonBlocking(flags & O_NONBLOCK);
                return result;
            }
            return (result & ~O_NONBLOCK) | (*handle->nonBlocking() ? O_NONBLOCK : 0);
        }
    }
    const int result = forwardOr(fn, fd, cmd, arg);
    if (cmd == F_DUPFD || cmd == F_DUPFD_CLOEXEC)
        return duplicated(fd, result);
    return result;
}

} // namespace

// A duplicate of a simulated descriptor is the same device (GStreamer's pool works on one).
SIMCAM_EXPORT int dup(int fd) noexcept
{
    return duplicated(fd, real::libc().dup(fd));
}

SIMCAM_EXPORT int dup2(int oldFd, int newFd) noexcept
{
    if (oldFd == newFd)
        return real::libc().dup2(oldFd, newFd);
    closingImplicitly(newFd);
    return duplicated(oldFd, real::libc().dup2(oldFd, newFd));
}

SIMCAM_EXPORT int dup3(int oldFd, int newFd, int flags) noexcept
{
    if (oldFd != newFd)
        closingImplicitly(newFd);
    return duplicated(oldFd, real::libc().dup3(oldFd, newFd, flags));
}

SIMCAM_EXPORT int fcntl(int fd, int cmd, ...)
{
    va_list ap;
    va_start(ap, cmd);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    return routeFcntl(real::libc().fcntl, fd, cmd, arg);
}

SIMCAM_EXPORT int fcntl64(int fd, int cmd, ...)
{
    va_list ap;
    va_start(ap, cmd);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    return routeFcntl(real::libc().fcntl64, fd, cmd, arg);
}

namespace {

// Carries out an ioctl on a simulated descriptor; false when `fd` is not one.
bool simulatedIoctl(int fd, unsigned long request, void* arg, int& result)
{
    Registry& registry = Registry::instance();
    if (!registry.hasHandles())
        return false;
    auto handle = registry.find(fd);
    if (!handle)
        return false;
    const int error = handle->ioctl(request, arg);
    registry.recorder().ioctl(handle->path(), request, error ? -1 : 0, error);
    if (request == USBDEVFS_RESET && error == 0)
        for (const auto& h : registry.handles())
            h->poke(); // streams of the re-enumerated camera end now
    result = error ? fail(error) : 0;
    return true;
}

} // namespace

SIMCAM_EXPORT int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list ap;
    va_start(ap, request);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    int result = 0;
    if (simulatedIoctl(fd, request, arg, result))
        return result;
    return real::libc().ioctl(fd, request, arg);
}

// What callers built with 64-bit time_t on a 32-bit C library call instead of ioctl.
SIMCAM_EXPORT int __ioctl_time64(int fd, unsigned long request, ...)
{
    va_list ap;
    va_start(ap, request);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    int result = 0;
    if (simulatedIoctl(fd, request, arg, result))
        return result;
    return forwardOr(real::libc().ioctl_time64, fd, request, arg);
}

SIMCAM_EXPORT DIR* opendir(const char* path)
{
    std::string storage;
    return real::libc().opendir(shadowed(path, PathUse::List, storage));
}

SIMCAM_EXPORT FILE* fopen(const char* path, const char* mode)
{
    std::string storage;
    return real::libc().fopen(shadowed(path, PathUse::Open, storage), mode);
}

SIMCAM_EXPORT FILE* fopen64(const char* path, const char* mode)
{
    std::string storage;
    return real::libc().fopen64(shadowed(path, PathUse::Open, storage), mode);
}

// ---- Path inspection: the sysfs walk and existence checks ------------------------------

#define INSPECT(fn, pathArg, ...)                                                               \
    std::string storage;                                                                        \
    const char* p = shadowed(pathArg, PathUse::Inspect, storage);                               \
    return forwardOr(real::libc().fn, __VA_ARGS__)

// A simulated node's placeholder file (or descriptor) shows as the character device.
#define STAT_PATH(fn, pathArg, buf, ...)                                                        \
    std::string storage;                                                                        \
    const char* p = shadowed(pathArg, PathUse::Inspect, storage);                               \
    const int result = forwardOr(real::libc().fn, __VA_ARGS__);                                 \
    if (result == 0 && p != pathArg)                                                            \
        if (auto device = nodeDevice(pathArg))                                                  \
            markStat(buf, *device);                                                             \
    return result

#define STAT_FD(fn, fd, buf, ...)                                                               \
    const int result = forwardOr(real::libc().fn, __VA_ARGS__);                                 \
    if (result == 0)                                                                            \
        if (auto device = descriptorDevice(fd))                                                 \
            markStat(buf, *device);                                                             \
    return result

namespace {

template <typename Stat>
void markStat(Stat* st, dev_t device)
{
    markCharDevice(*st, device);
}

void markStat(struct statx* st, dev_t device)
{
    st->stx_mode = uint16_t(S_IFCHR | 0660);
    st->stx_rdev_major = major(device);
    st->stx_rdev_minor = minor(device);
    st->stx_size = 0;
}

void markStat(void* st, dev_t device)
{
    markCharDeviceTime64(st, device);
}

// fstatat(fd, "", AT_EMPTY_PATH) inspects the descriptor itself.
bool emptyPath(const char* path, int flags)
{
    return (flags & AT_EMPTY_PATH) && path && !*path;
}

} // namespace

SIMCAM_EXPORT int stat(const char* path, struct stat* buf) noexcept
{
    STAT_PATH(stat, path, buf, p, buf);
}

SIMCAM_EXPORT int lstat(const char* path, struct stat* buf) noexcept
{
    STAT_PATH(lstat, path, buf, p, buf);
}

SIMCAM_EXPORT int fstatat(int dirfd, const char* path, struct stat* buf, int flags) noexcept
{
    if (emptyPath(path, flags)) {
        STAT_FD(fstatat, dirfd, buf, dirfd, path, buf, flags);
    }
    STAT_PATH(fstatat, path, buf, dirfd, p, buf, flags);
}

SIMCAM_EXPORT int stat64(const char* path, struct stat64* buf) noexcept
{
    STAT_PATH(stat64, path, buf, p, buf);
}

SIMCAM_EXPORT int lstat64(const char* path, struct stat64* buf) noexcept
{
    STAT_PATH(lstat64, path, buf, p, buf);
}

SIMCAM_EXPORT int fstatat64(int dirfd, const char* path, struct stat64* buf, int flags) noexcept
{
    if (emptyPath(path, flags)) {
        STAT_FD(fstatat64, dirfd, buf, dirfd, path, buf, flags);
    }
    STAT_PATH(fstatat64, path, buf, dirfd, p, buf, flags);
}

SIMCAM_EXPORT int statx(int dirfd, const char* path, int flags, unsigned mask,
                        struct statx* buf) noexcept
{
    if (emptyPath(path, flags)) {
        STAT_FD(statx, dirfd, buf, dirfd, path, flags, mask, buf);
    }
    STAT_PATH(statx, path, buf, dirfd, p, flags, mask, buf);
}

SIMCAM_EXPORT int fstat(int fd, struct stat* buf) noexcept
{
    STAT_FD(fstat, fd, buf, fd, buf);
}

SIMCAM_EXPORT int fstat64(int fd, struct stat64* buf) noexcept
{
    STAT_FD(fstat64, fd, buf, fd, buf);
}

// Callers built against C libraries before 2.33 reach stat through these.
SIMCAM_EXPORT int __fxstat(int ver, int fd, struct stat* buf) noexcept
{
    STAT_FD(fxstat, fd, buf, ver, fd, buf);
}

SIMCAM_EXPORT int __fxstat64(int ver, int fd, struct stat64* buf) noexcept
{
    STAT_FD(fxstat64, fd, buf, ver, fd, buf);
}

SIMCAM_EXPORT int __xstat(int ver, const char* path, struct stat* buf) noexcept
{
    STAT_PATH(xstat, path, buf, ver, p, buf);
}

SIMCAM_EXPORT int __xstat64(int ver, const char* path, struct stat64* buf) noexcept
{
    STAT_PATH(xstat64, path, buf, ver, p, buf);
}

SIMCAM_EXPORT int __lxstat(int ver, const char* path, struct stat* buf) noexcept
{
    STAT_PATH(lxstat, path, buf, ver, p, buf);
}

SIMCAM_EXPORT int __lxstat64(int ver, const char* path, struct stat64* buf) noexcept
{
    STAT_PATH(lxstat64, path, buf, ver, p, buf);
}

SIMCAM_EXPORT int access(const char* path, int mode) noexcept
{
    INSPECT(access, path, p, mode);
}

SIMCAM_EXPORT int faccessat(int dirfd, const char* path, int mode, int flags) noexcept
{
    INSPECT(faccessat, path, dirfd, p, mode, flags);
}

SIMCAM_EXPORT ssize_t readlink(const char* path, char* buf, size_t size) noexcept
{
    INSPECT(readlink, path, p, buf, size);
}

SIMCAM_EXPORT ssize_t readlinkat(int dirfd, const char* path, char* buf, size_t size) noexcept
{
    INSPECT(readlinkat, path, dirfd, p, buf, size);
}

SIMCAM_EXPORT char* realpath(const char* path, char* resolved) noexcept
{
    std::string storage;
    const char* p = shadowed(path, PathUse::Inspect, storage);
    if (!real::libc().realpath) {
        errno = ENOSYS;
        return nullptr;
    }
    return real::libc().realpath(p, resolved);
}

// 32-bit C libraries with 64-bit time_t; the buffer is passed through untouched.
SIMCAM_EXPORT int __stat64_time64(const char* path, void* buf)
{
    STAT_PATH(stat64_time64, path, buf, p, buf);
}

SIMCAM_EXPORT int __lstat64_time64(const char* path, void* buf)
{
    STAT_PATH(lstat64_time64, path, buf, p, buf);
}

SIMCAM_EXPORT int __fstatat64_time64(int dirfd, const char* path, void* buf, int flags)
{
    if (emptyPath(path, flags)) {
        STAT_FD(fstatat64_time64, dirfd, buf, dirfd, path, buf, flags);
    }
    STAT_PATH(fstatat64_time64, path, buf, dirfd, p, buf, flags);
}

SIMCAM_EXPORT int __fstat64_time64(int fd, void* buf)
{
    STAT_FD(fstat64_time64, fd, buf, fd, buf);
}
