// HEVC cutting for any frame size: pieces follow each other without gap or overlap,
// cover the frame exactly, and none exceeds what the pin's frames hold.
#include "Bitstream.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    uint32_t bytes = 0;
    std::memcpy(&bytes, data, size < sizeof bytes ? size : sizeof bytes);
    uint64_t next = 0;
    uint64_t pieces = 0;
    bitstream::cutHevc(bytes, [&](uint32_t offset, uint32_t length) {
        if (offset != next || length == 0 || length > bitstream::kHevcPieceBytes)
            std::abort();
        next = uint64_t(offset) + length;
        ++pieces;
    });
    const uint64_t expected = (uint64_t(bytes) + bitstream::kHevcPieceBytes - 1) /
                              bitstream::kHevcPieceBytes;
    if (next != bytes || pieces != expected)
        std::abort();
    return 0;
}
