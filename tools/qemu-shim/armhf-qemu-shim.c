/* Preloaded (through the sysroot's /etc/ld.so.preload) into every armhf process that runs
 * under qemu-user with -L <sysroot>. It papers over what user-mode emulation without a
 * binfmt_misc entry, on a 64-bit host kernel, does differently from the board, so tests
 * behave as they would there:
 *
 *  1. qemu-user 7.2 rejects clone(CLONE_PIDFD) with EINVAL while the host kernel's
 *     waitid(P_PIDFD) answers, so Qt's process launcher picks the pidfd path and every
 *     QProcess fails to start. waitid(P_PIDFD) is answered with ENOSYS here, and Qt falls
 *     back to a plain fork.
 *  2. execve() of an ARM program (a death test re-running its own binary, a tool
 *     re-executing itself, env(1) starting a probe) fails with ENOEXEC: the host kernel
 *     cannot run it. Such an exec is turned into an exec of qemu-user itself, which reads
 *     its settings (QEMU_CPU, QEMU_LD_PREFIX) from the environment the emulator line hands
 *     to the guest.
 *  3. popen() and system() start the host's /bin/sh, which cannot exec an ARM program
 *     either; their commands are run by the sysroot's (ARM) shell under qemu instead.
 *  4. ext4 gives a 64-bit process (qemu is one) 64-bit directory offsets, which the 32-bit
 *     readdir() refuses with EOVERFLOW; a 32-bit process on the board gets 32-bit ones.
 *     readdir() here reads through readdir64() and cuts d_off to 32 bits.
 *
 * Host programs (ffprobe, sh) are exec'ed untouched. Built by scripts/install-armhf.sh into
 * the sysroot, with this directory's CMakeLists.txt.
 */
#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <elf.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#ifndef P_PIDFD
#define P_PIDFD 3
#endif

extern char** environ;

long syscall(long number, ...)
{
    /* Seven words cover six arguments plus the register-pair padding the ARM EABI puts
     * before a 64-bit argument; they are passed on in the same slots. */
    va_list ap;
    va_start(ap, number);
    long a[7];
    for (int i = 0; i < 7; ++i)
        a[i] = va_arg(ap, long);
    va_end(ap);
    if (number == SYS_waitid && a[0] == P_PIDFD) {
        errno = ENOSYS;
        return -1;
    }
    static long (*real)(long, ...);
    if (!real)
        real = (long (*)(long, ...))dlsym(RTLD_NEXT, "syscall");
    return real(number, a[0], a[1], a[2], a[3], a[4], a[5], a[6]);
}

static int (*real_execve(void))(const char*, char* const[], char* const[])
{
    static int (*fn)(const char*, char* const[], char* const[]);
    if (!fn)
        fn = (int (*)(const char*, char* const[], char* const[]))dlsym(RTLD_NEXT, "execve");
    return fn;
}

/* For a 32-bit ARM ELF file, its real path on the host into out; 0 otherwise. qemu looks a
 * path up in the sysroot first (-L) and fakes /proc/self/exe, but the qemu we exec opens
 * its program without either, so it needs the file the guest actually sees; the host's
 * /proc/self/fd link names it. */
static int armProgramPath(const char* path, char* out, size_t size)
{
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return 0;
    Elf32_Ehdr h;
    const ssize_t got = read(fd, &h, sizeof h);
    int arm = got == (ssize_t)sizeof h && memcmp(h.e_ident, ELFMAG, SELFMAG) == 0 &&
              h.e_ident[EI_CLASS] == ELFCLASS32 && h.e_machine == EM_ARM;
    if (arm) {
        char link[64];
        snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
        const ssize_t n = readlink(link, out, size - 1);
        arm = n > 0;
        if (arm)
            out[n] = '\0';
    }
    close(fd);
    return arm;
}

int execve(const char* path, char* const argv[], char* const envp[])
{
    const char* qemu = getenv("ARMHF_QEMU");
    char resolved[PATH_MAX];
    if (!qemu || !*qemu || !armProgramPath(path, resolved, sizeof resolved))
        return real_execve()(path, argv, envp);

    size_t argc = 0;
    while (argv[argc])
        ++argc;
    char** args = calloc(argc + 5, sizeof *args);
    if (!args) {
        errno = ENOMEM;
        return -1;
    }
    size_t k = 0;
    args[k++] = (char*)qemu;
    if (argc > 0) {
        args[k++] = (char*)"-0";
        args[k++] = argv[0];
    }
    args[k++] = resolved;
    for (size_t i = 1; i < argc; ++i)
        args[k++] = argv[i];
    args[k] = NULL;
    real_execve()(qemu, args, envp);
    const int saved = errno;
    free(args);
    errno = saved;
    return -1;
}

int execv(const char* path, char* const argv[])
{
    return execve(path, argv, environ);
}

/* glibc's execvp() searches PATH with its internal execve(), which this file cannot
 * reach, and on ENOEXEC runs the ARM file as a shell script; search here instead. */
int execvp(const char* file, char* const argv[])
{
    if (!*file) {
        errno = ENOENT;
        return -1;
    }
    if (strchr(file, '/'))
        return execve(file, argv, environ);
    const char* dirs = getenv("PATH");
    if (!dirs || !*dirs)
        dirs = "/bin:/usr/bin";
    int seenDenied = 0;
    for (const char* d = dirs;; ++d) {
        const char* end = strchrnul(d, ':');
        char candidate[PATH_MAX];
        const int n = snprintf(candidate, sizeof candidate, "%.*s%s%s", (int)(end - d), d,
                               end == d ? "" : "/", file);
        if (n > 0 && (size_t)n < sizeof candidate) {
            execve(candidate, argv, environ);
            if (errno == EACCES)
                seenDenied = 1;
            else if (errno != ENOENT && errno != ENOTDIR)
                return -1;
        }
        if (!*end)
            break;
        d = end;
    }
    errno = seenDenied ? EACCES : ENOENT;
    return -1;
}

/* "exec QEMU PREFIX/bin/sh -c 'COMMAND'" for the host shell popen()/system() start, or NULL
 * outside emulation. The caller frees it. */
static char* viaArmShell(const char* command)
{
    const char* qemu = getenv("ARMHF_QEMU");
    const char* prefix = getenv("QEMU_LD_PREFIX");
    if (!qemu || !*qemu || !prefix || !*prefix)
        return NULL;
    size_t quotes = 0;
    for (const char* c = command; *c; ++c)
        quotes += *c == '\'';
    const size_t size = strlen(qemu) + strlen(prefix) + strlen(command) + 3 * quotes + 64;
    char* out = malloc(size);
    if (!out)
        return NULL;
    char* o = out + snprintf(out, size, "exec '%s' '%s/bin/sh' -c '", qemu, prefix);
    for (const char* c = command; *c; ++c) {
        if (*c == '\'') {
            memcpy(o, "'\\''", 4);
            o += 4;
        } else {
            *o++ = *c;
        }
    }
    *o++ = '\'';
    *o = '\0';
    return out;
}

FILE* popen(const char* command, const char* mode)
{
    static FILE* (*real)(const char*, const char*);
    if (!real)
        real = (FILE * (*)(const char*, const char*)) dlsym(RTLD_NEXT, "popen");
    char* wrapped = viaArmShell(command);
    FILE* f = real(wrapped ? wrapped : command, mode);
    free(wrapped);
    return f;
}

int system(const char* command)
{
    static int (*real)(const char*);
    if (!real)
        real = (int (*)(const char*))dlsym(RTLD_NEXT, "system");
    char* wrapped = command ? viaArmShell(command) : NULL;
    const int status = real(wrapped ? wrapped : command);
    free(wrapped);
    return status;
}

struct dirent* readdir(DIR* dir)
{
    struct dirent64* e = readdir64(dir);
    if (!e)
        return NULL;
    /* Rewrite the record in place, in the stream's own buffer, as glibc does: the 32-bit
     * header is shorter, so the name moves towards the front. */
    const ino64_t ino = e->d_ino;
    const off64_t off = e->d_off;
    const unsigned short reclen = e->d_reclen;
    const unsigned char type = e->d_type;
    struct dirent* d = (struct dirent*)e;
    memmove(d->d_name, e->d_name, strlen(e->d_name) + 1);
    d->d_ino = (ino_t)ino;
    d->d_off = (off_t)off;
    d->d_reclen = reclen;
    d->d_type = type;
    return d;
}
