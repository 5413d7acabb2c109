#pragma once
// A simulated descriptor: the object behind a descriptor number the simulator returned.

#include "simcam/SimCamera.h"

#include <string>

namespace simcam {

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
    // Faults, timing or presence changed: re-evaluate now.
    virtual void poke() {}
    virtual void addGauges(Stats&) const {}
    // Its model has been replaced by another.
    virtual bool stale() const = 0;
};

} // namespace simcam
