#pragma once
// A simulated descriptor: the object behind a descriptor number the simulator returned.

#include "simcam/SimCamera.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>

namespace simcam {

class MmapBuffer;

class Handle {
public:
    virtual ~Handle() = default;

    virtual const std::string& path() const = 0;
    // Carries out one ioctl; 0 on success, else the errno to fail with.
    virtual int ioctl(unsigned long request, void* arg) = 0;
    // Stops threads and releases buffers for good. With `wake`, the descriptor is left
    // readable so a waiting select() sees the end (its model was replaced); without, the
    // descriptor is about to close or already is and is not touched.
    virtual void shutdown(bool /*wake*/) {}
    // Another descriptor number now refers to it (dup): it must no longer rely on its own.
    virtual void duplicated() {}
    // Faults, timing or presence changed: re-evaluate now.
    virtual void poke() {}
    virtual void addGauges(Stats&) const {}
    // The buffer an mmap() of the descriptor at `offset` maps, or null with `error` set.
    virtual std::shared_ptr<MmapBuffer> mappable(uint64_t /*offset*/, size_t /*length*/,
                                                int /*prot*/, int /*flags*/, int& error) const
    {
        error = ENODEV;
        return nullptr;
    }
    // The character device it stands for (stat of the descriptor); none: the descriptor's own.
    virtual std::optional<dev_t> device() const { return std::nullopt; }
    // The poll events the device reports now for `requested`; none: the descriptor's own.
    virtual std::optional<short> pollEvents(short /*requested*/) const { return std::nullopt; }
    // O_NONBLOCK as the caller set it (open, fcntl F_SETFL); none: not followed.
    virtual std::optional<bool> nonBlocking() const { return std::nullopt; }
    virtual void setNonBlocking(bool) {}
    // A descriptor readable while a V4L2 event is pending (POLLPRI); -1: none.
    virtual int eventDescriptor() const { return -1; }
    // Its model has been replaced by another.
    virtual bool stale() const = 0;
};

} // namespace simcam
