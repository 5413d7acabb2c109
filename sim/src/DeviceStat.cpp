// Built with the C library's default large-file and time settings, unlike the interposer:
// on a 32-bit library with 64-bit time_t, `struct stat` here is the layout of the
// __*stat64_time64 calls.
#include "DeviceStat.h"

#include "DeviceState.h"
#include "Registry.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace simcam {

std::optional<dev_t> nodeDevice(const char* path)
{
    if (!maySimulate(path))
        return std::nullopt;
    Registry& registry = Registry::instance();
    if (!registry.active())
        return std::nullopt;
    auto model = registry.model();
    auto node = model ? model->nodeByPath(path) : nullptr;
    if (!node)
        return std::nullopt;
    return makedev(kVideoMajor, node->minor);
}

std::optional<dev_t> descriptorDevice(int fd)
{
    Registry& registry = Registry::instance();
    if (!registry.hasHandles())
        return std::nullopt;
    auto handle = registry.find(fd);
    return handle ? handle->device() : std::nullopt;
}

void markCharDeviceTime64([[maybe_unused]] void* buf, [[maybe_unused]] dev_t device)
{
#if defined(__USE_TIME_BITS64) && __TIMESIZE == 32
    markCharDevice(*static_cast<struct stat*>(buf), device);
#endif
}

} // namespace simcam
