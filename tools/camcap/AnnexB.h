#pragma once
// What a writer needs to know of a coded frame: whether it can start a file, and the
// parameter sets that describe the stream.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "MediaFormat.h"

namespace annexb {

// Calls visit(nalStart, nalSize, startCodeSize) for each NAL unit of an Annex B buffer.
template <typename Visit>
void forEachNal(const uint8_t* p, size_t n, Visit&& visit)
{
    size_t i = 0, start = 0, code = 0;
    bool inNal = false;
    while (i + 3 <= n) {
        if (p[i] == 0 && p[i + 1] == 0 && p[i + 2] == 1) {
            const size_t codeStart = i > 0 && p[i - 1] == 0 ? i - 1 : i;
            if (inNal)
                visit(p + start, codeStart - start, code);
            code = i + 3 - codeStart;
            start = i + 3;
            inNal = true;
            i += 3;
        } else {
            ++i;
        }
    }
    if (inNal && start < n)
        visit(p + start, n - start, code);
}

inline bool startsWithStartCode(const uint8_t* p, size_t n)
{
    return (n >= 3 && p[0] == 0 && p[1] == 0 && p[2] == 1) ||
           (n >= 4 && p[0] == 0 && p[1] == 0 && p[2] == 0 && p[3] == 1);
}

inline int nalType(int codec, const uint8_t* nal)
{
    return codec == CODEC_TYPE_HEVC ? (nal[0] >> 1) & 0x3f : nal[0] & 0x1f;
}

// An IDR picture (H.264) or an IRAP picture (HEVC); every JPEG is a key frame. Only the
// NAL headers up to the first slice are read, not the whole picture.
inline bool isKeyFrame(int codec, const uint8_t* p, size_t n)
{
    if (codec != CODEC_TYPE_H264 && codec != CODEC_TYPE_HEVC)
        return true;
    for (size_t i = 0; i + 3 < n; ++i) {
        if (p[i] != 0 || p[i + 1] != 0 || p[i + 2] != 1)
            continue;
        const int type = nalType(codec, p + i + 3);
        if (codec == CODEC_TYPE_H264 ? type >= 1 && type <= 5 : type <= 31)
            return codec == CODEC_TYPE_H264 ? type == 5 : type >= 16 && type <= 23;
        i += 3;
    }
    return false;
}

// The frame's SPS and PPS (and VPS for HEVC) with their start codes.
inline std::vector<uint8_t> parameterSets(int codec, const uint8_t* p, size_t n)
{
    std::vector<uint8_t> sets;
    forEachNal(p, n, [&](const uint8_t* nal, size_t size, size_t) {
        const int type = size > 0 ? nalType(codec, nal) : -1;
        const bool parameterSet = codec == CODEC_TYPE_HEVC ? type >= 32 && type <= 34 : type == 7 || type == 8;
        if (parameterSet) {
            sets.insert(sets.end(), {0, 0, 0, 1});
            sets.insert(sets.end(), nal, nal + size);
        }
    });
    return sets;
}

} // namespace annexb
