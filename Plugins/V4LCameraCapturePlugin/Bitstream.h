// The element's scans of coded video: which NAL unit a buffer starts with, whether an
// H.264 access unit is a key frame, and how an HEVC frame is cut into pin-sized pieces.
// Kept apart from the capture loop so they can be exercised on arbitrary bytes.
#pragma once

#include <algorithm>
#include <cstdint>

namespace bitstream {

// An HEVC frame larger than this reaches the pin in several pieces: the size of a
// 1080p NV12 picture, the largest frame the host's pool is sized for.
constexpr uint32_t kHevcPieceBytes = 1920 * 1080 * 3 / 2;  // 3,110,400

// True when data starts with an Annex B start code whose NAL unit has the given type.
bool isNalFrame(unsigned char type, const void* data, int length);

// Whether an H.264 access unit begins with an IDR slice, possibly behind SPS and PPS.
bool startsWithKeyFrame(const unsigned char* p, int n);

// Calls take(offset, length) for consecutive pieces covering [0, bytes), none longer
// than kHevcPieceBytes.
template <typename Take>
void cutHevc(uint32_t bytes, Take&& take)
{
    for (uint32_t offset = 0; offset < bytes;) {
        const uint32_t piece = std::min(bytes - offset, kHevcPieceBytes);
        take(offset, piece);
        offset += piece;
    }
}

} // namespace bitstream
