#pragma once
// Drives the built-in H.264 encoder the way the element does, and reads what comes out.

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Codec/MediaCodec.h"

namespace codectest {

struct StreamSettings {
    uint64_t format = Codec::PIXEL_FORMAT_NV12;
    uint32_t width = 320;
    uint32_t height = 240;
    uint32_t fpsNum = 30;
    uint32_t fpsDen = 1;
    uint32_t keyInterval = 60;
    uint32_t bitRate = 7340032;
    uint32_t horStride = 0;  // 0: the tight stride the element sets
    uint32_t verStride = 0;  // 0: the height, as the element sets
};

std::unique_ptr<Codec::Encoder> createH264Encoder();

// The element's calls, in its order, then configure(); returns what configure() returned.
int configureLikeElement(Codec::Encoder& encoder, const StreamSettings& settings);

// The bytes of the packet getPacket() hands over (releasing its buffer as the element does),
// or nothing when the record says no packet is ready.
std::vector<uint8_t> takePacket(Codec::Encoder& encoder);

// Names parameterised cases by their `name` member.
struct CaseName {
    template <class Case> std::string operator()(const testing::TestParamInfo<Case>& info) const
    {
        return info.param.name;
    }
};

// nal_unit_type of each NAL unit of an Annex B byte stream, in order; -1 first when the
// bytes do not begin with a start code.
std::vector<int> nalTypes(const std::vector<uint8_t>& annexB);

} // namespace codectest
