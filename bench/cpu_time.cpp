// Runs a command and reports the CPU it used, from the kernel's rusage of the child
// (microseconds; the shell's `times` and GNU time round to clock ticks, too coarse for
// runs of a few dozen frames).
//
//   cpu_time OUT COMMAND [ARG...]   writes "USER_US SYSTEM_US STATUS" to OUT
//
// STATUS is the exit status, or 128 + the signal that ended the command; 127 when it
// could not be started. cpu_time's own exit status is the command's.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {
long long micros(const timeval& t) { return static_cast<long long>(t.tv_sec) * 1000000 + t.tv_usec; }
} // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: cpu_time OUT COMMAND [ARG...]\n");
        return 2;
    }
    const pid_t child = fork();
    if (child < 0) {
        std::perror("cpu_time: fork");
        return 127;
    }
    if (child == 0) {
        execvp(argv[2], argv + 2);
        std::fprintf(stderr, "cpu_time: %s: %s\n", argv[2], std::strerror(errno));
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    pid_t r;
    do
        r = wait4(child, &status, 0, &usage);
    while (r < 0 && errno == EINTR);
    const int code = r < 0 ? 127 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    FILE* out = std::fopen(argv[1], "w");
    if (!out) {
        std::fprintf(stderr, "cpu_time: %s: %s\n", argv[1], std::strerror(errno));
        return 127;
    }
    std::fprintf(out, "%lld %lld %d\n", micros(usage.ru_utime), micros(usage.ru_stime), code);
    std::fclose(out);
    return code;
}
