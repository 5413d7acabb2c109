#pragma once
// The C library's own versions of the calls libsimcam interposes, looked up once with
// dlsym(RTLD_NEXT). Everything the simulator does with real descriptors and paths goes
// through these, never through its own interposed symbols, so that no interposed call
// re-enters the simulator while it holds a lock.

#include <dirent.h>
#include <poll.h>
#include <sys/select.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/types.h>

struct statx;
struct epoll_event;

namespace simcam::real {

struct Libc {
    int (*open)(const char*, int, ...);
    int (*open64)(const char*, int, ...);
    int (*openat)(int, const char*, int, ...);
    int (*openat64)(int, const char*, int, ...);
    int (*open_2)(const char*, int);
    int (*open64_2)(const char*, int);
    int (*openat_2)(int, const char*, int);
    int (*openat64_2)(int, const char*, int);
    int (*close)(int);
    int (*dup)(int);
    int (*dup2)(int, int);
    int (*dup3)(int, int, int);
    int (*fcntl)(int, int, ...);
    int (*fcntl64)(int, int, ...);
    int (*ioctl)(int, unsigned long, ...);
    DIR* (*opendir)(const char*);
    int (*stat)(const char*, struct stat*);
    int (*lstat)(const char*, struct stat*);
    int (*fstatat)(int, const char*, struct stat*, int);
    int (*stat64)(const char*, struct stat64*);
    int (*lstat64)(const char*, struct stat64*);
    int (*fstatat64)(int, const char*, struct stat64*, int);
    int (*statx)(int, const char*, int, unsigned, struct statx*);
    int (*access)(const char*, int);
    int (*faccessat)(int, const char*, int, int);
    ssize_t (*readlink)(const char*, char*, size_t);
    ssize_t (*readlinkat)(int, const char*, char*, size_t);
    char* (*realpath)(const char*, char*);
    FILE* (*fopen)(const char*, const char*);
    FILE* (*fopen64)(const char*, const char*);
    int (*fstat)(int, struct stat*);
    int (*fstat64)(int, struct stat64*);
    // Callers built against C libraries before 2.33.
    int (*fxstat)(int, int, struct stat*);
    int (*fxstat64)(int, int, struct stat64*);
    int (*xstat)(int, const char*, struct stat*);
    int (*xstat64)(int, const char*, struct stat64*);
    int (*lxstat)(int, const char*, struct stat*);
    int (*lxstat64)(int, const char*, struct stat64*);
    void* (*mmap)(void*, size_t, int, int, int, off_t);
    void* (*mmap64)(void*, size_t, int, int, int, off64_t);
    int (*munmap)(void*, size_t);
    int (*poll)(struct pollfd*, nfds_t, int);
    int (*ppoll)(struct pollfd*, nfds_t, const struct timespec*, const sigset_t*);
    int (*poll_chk)(struct pollfd*, nfds_t, int, size_t);
    int (*ppoll_chk)(struct pollfd*, nfds_t, const struct timespec*, const sigset_t*, size_t);
    int (*epoll_ctl)(int, int, int, struct epoll_event*);
    int (*select)(int, fd_set*, fd_set*, fd_set*, struct timeval*);
    int (*pselect)(int, fd_set*, fd_set*, fd_set*, const struct timespec*, const sigset_t*);
    // 32-bit C libraries built for 64-bit time_t route these calls through the following.
    int (*ioctl_time64)(int, unsigned long, ...);
    int (*stat64_time64)(const char*, void*);
    int (*lstat64_time64)(const char*, void*);
    int (*fstatat64_time64)(int, const char*, void*, int);
    int (*fstat64_time64)(int, void*);
};

// Resolved on first use (thread-safe); entries the C library lacks are null.
const Libc& libc();

// Closes a descriptor the simulator owns.
int closeFd(int fd);

} // namespace simcam::real
