#pragma once
// What stat() shows for a simulated video node: a character device of the video4linux
// major, for its path (an empty placeholder file in the shadow tree) and for its descriptor
// (an eventfd).

#include <optional>
#include <sys/stat.h>
#include <sys/types.h>

namespace simcam {

// The device number of the simulated node at `path`, or of simulated descriptor `fd`.
std::optional<dev_t> nodeDevice(const char* path);
std::optional<dev_t> descriptorDevice(int fd);

// Rewrites a C library stat buffer of the 64-bit-time layout that 32-bit C libraries hand
// to the __*stat64_time64 calls; elsewhere those calls do not exist and this does nothing.
void markCharDeviceTime64(void* buf, dev_t device);

template <typename Stat>
void markCharDevice(Stat& st, dev_t device)
{
    st.st_mode = S_IFCHR | 0660;
    st.st_rdev = device;
    st.st_size = 0;
}

} // namespace simcam
