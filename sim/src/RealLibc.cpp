#include "RealLibc.h"

#include <dlfcn.h>

namespace simcam::real {

namespace {

template <typename Fn>
void resolve(Fn& fn, const char* name)
{
    fn = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

Libc lookUp()
{
    Libc l{};
    resolve(l.open, "open");
    resolve(l.open64, "open64");
    resolve(l.openat, "openat");
    resolve(l.openat64, "openat64");
    resolve(l.open_2, "__open_2");
    resolve(l.open64_2, "__open64_2");
    resolve(l.openat_2, "__openat_2");
    resolve(l.openat64_2, "__openat64_2");
    resolve(l.close, "close");
    resolve(l.dup, "dup");
    resolve(l.dup2, "dup2");
    resolve(l.dup3, "dup3");
    resolve(l.fcntl, "fcntl");
    resolve(l.fcntl64, "fcntl64");
    resolve(l.ioctl, "ioctl");
    resolve(l.opendir, "opendir");
    resolve(l.stat, "stat");
    resolve(l.lstat, "lstat");
    resolve(l.fstatat, "fstatat");
    resolve(l.stat64, "stat64");
    resolve(l.lstat64, "lstat64");
    resolve(l.fstatat64, "fstatat64");
    resolve(l.statx, "statx");
    resolve(l.access, "access");
    resolve(l.faccessat, "faccessat");
    resolve(l.readlink, "readlink");
    resolve(l.readlinkat, "readlinkat");
    resolve(l.realpath, "realpath");
    resolve(l.fopen, "fopen");
    resolve(l.fopen64, "fopen64");
    resolve(l.fstat, "fstat");
    resolve(l.fstat64, "fstat64");
    resolve(l.fxstat, "__fxstat");
    resolve(l.fxstat64, "__fxstat64");
    resolve(l.xstat, "__xstat");
    resolve(l.xstat64, "__xstat64");
    resolve(l.lxstat, "__lxstat");
    resolve(l.lxstat64, "__lxstat64");
    resolve(l.mmap, "mmap");
    resolve(l.mmap64, "mmap64");
    resolve(l.munmap, "munmap");
    resolve(l.poll, "poll");
    // The calls with a time argument take this library's time_t: built for 64-bit time_t
    // on a 32-bit C library, those are the C library's time64 entries (and the headers
    // give this library's own definitions of them those names too).
    constexpr bool time64 = sizeof(time_t) > sizeof(long);
    resolve(l.ppoll, time64 ? "__ppoll64" : "ppoll");
    resolve(l.poll_chk, "__poll_chk");
    resolve(l.ppoll_chk, time64 ? "__ppoll64_chk" : "__ppoll_chk");
    resolve(l.select, time64 ? "__select64" : "select");
    resolve(l.pselect, time64 ? "__pselect64" : "pselect");
    resolve(l.epoll_ctl, "epoll_ctl");
    resolve(l.ioctl_time64, "__ioctl_time64");
    resolve(l.stat64_time64, "__stat64_time64");
    resolve(l.lstat64_time64, "__lstat64_time64");
    resolve(l.fstatat64_time64, "__fstatat64_time64");
    resolve(l.fstat64_time64, "__fstat64_time64");
    return l;
}

} // namespace

const Libc& libc()
{
    static const Libc table = lookUp();
    return table;
}

int closeFd(int fd)
{
    return libc().close(fd);
}

} // namespace simcam::real
