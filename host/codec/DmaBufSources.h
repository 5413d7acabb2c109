#pragma once
// Where capture memory comes from. Each source hands out a descriptor a V4L2 driver can
// import (except memfd, which only the simulated camera takes) and a CPU mapping of it.

#include <sys/mman.h>

#include <cstddef>
#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "UniqueFd.h"

namespace Codec {

enum class DmaBufSource { DmaHeap, Udmabuf, Drm, Memfd };

const char* dmaBufSourceName(DmaBufSource source);

// A descriptor and its CPU mapping, both released on destruction.
struct MappedDmaBuf {
    MappedDmaBuf() = default;
    MappedDmaBuf(MappedDmaBuf&& other) noexcept;
    MappedDmaBuf& operator=(MappedDmaBuf&& other) noexcept;
    ~MappedDmaBuf();

    bool valid() const { return fd.valid() && map != MAP_FAILED; }

    UniqueFd fd;
    void* map = MAP_FAILED;
    size_t length = 0;
};

// One allocation of `bytes` (a page multiple) from `source`; invalid (errno set) when the
// source is missing or refuses. `device`, when given, is set to the device that served or
// refused last (e.g. "/dev/dma_heap/system", "/dev/dri/card0"; "" for memfd).
MappedDmaBuf allocateFrom(DmaBufSource source, size_t bytes, std::string* device = nullptr);

// The sources to try, best first. `forced` is the value of MEDIAMEM_SOURCE: null or empty
// for all of them, else the one it names; `ok` is false for a name no source has.
std::vector<DmaBufSource> sourceOrder(const char* forced, bool* ok);

// Picks a source per allocation: the one that worked last is tried first, the rest stay
// as a fallback for the rare allocation one refuses. Thread-safe.
class DmaBufChooser {
public:
    using Allocate = std::function<MappedDmaBuf(DmaBufSource, size_t)>;
    using Announce = std::function<void(DmaBufSource)>;

    DmaBufChooser(Allocate allocate, Announce announce);

    // Tries `order`, the last working source first; `source` says which one served.
    MappedDmaBuf allocate(const std::vector<DmaBufSource>& order, size_t bytes, DmaBufSource* source);
    // The last source that served, or -1 before any did.
    int current() const;

private:
    Allocate m_allocate;
    Announce m_announce;
    std::atomic<int> m_current{-1};
};

} // namespace Codec
