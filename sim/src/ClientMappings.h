#pragma once
// Client mappings of simulated MMAP buffers, by address: munmap() tells the buffer it is no
// longer mapped, which QUERYBUF reports (V4L2_BUF_FLAG_MAPPED) as a driver does.

#include "MmapBuffer.h"

#include <cstddef>
#include <memory>

namespace simcam::clientMappings {

void add(void* addr, size_t length, std::shared_ptr<MmapBuffer> buffer);
// Forgets every mapping that starts inside [addr, addr + length). Cheap when there are none.
void remove(void* addr, size_t length);

} // namespace simcam::clientMappings
