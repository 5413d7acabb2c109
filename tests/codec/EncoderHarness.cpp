#include "EncoderHarness.h"

#include <gtest/gtest.h>

namespace codectest {

std::unique_ptr<Codec::Encoder> createH264Encoder()
{
    return std::unique_ptr<Codec::Encoder>(Codec::MediaCodec::createEncoder(Codec::CODEC_H264));
}

int configureLikeElement(Codec::Encoder& encoder, const StreamSettings& s)
{
    const bool yuyv = s.format == Codec::PIXEL_FORMAT_YUYV;
    encoder.set(Codec::CONFIG_INPUT_FORMAT, unsigned(s.format));
    encoder.set(Codec::CONFIG_WIDTH, s.width);
    encoder.set(Codec::CONFIG_HEIGHT, s.height);
    encoder.set(Codec::CONFIG_HOR_STRIDE, s.horStride ? s.horStride : (yuyv ? 2 : 1) * s.width);
    encoder.set(Codec::CONFIG_VER_STRIDE, s.verStride ? s.verStride : s.height);
    encoder.set(Codec::CONFIG_INPUT_FPS_NUM, s.fpsNum);
    encoder.set(Codec::CONFIG_INPUT_FPS_DEN, s.fpsDen);
    encoder.set(Codec::CONFIG_OUTPUT_FPS_NUM, s.fpsNum);
    encoder.set(Codec::CONFIG_OUTPUT_FPS_DEN, s.fpsDen);
    encoder.set(Codec::CONFIG_GOP, s.keyInterval);
    encoder.set(Codec::CONFIG_RATE_CONTROL, 1);
    encoder.set(Codec::CONFIG_BITRATE, s.bitRate);
    return encoder.configure();
}

std::vector<uint8_t> takePacket(Codec::Encoder& encoder)
{
    std::unique_ptr<Codec::MediaPacket> record = encoder.getPacket();
    if (!record)
        return {};
    std::unique_ptr<Codec::MediaBuffer> buffer(record->buffer);
    if (record->status != 0) {
        EXPECT_EQ(buffer, nullptr) << "a record without a packet carries a buffer";
        return {};
    }
    if (!buffer) {
        ADD_FAILURE() << "status 0 without a buffer";
        return {};
    }
    EXPECT_LE(buffer->length, buffer->size);
    const auto* bytes = static_cast<const uint8_t*>(buffer->data);
    return std::vector<uint8_t>(bytes, bytes + buffer->length);
}

std::vector<int> nalTypes(const std::vector<uint8_t>& s)
{
    std::vector<int> types;
    const bool startsWithStartCode =
        s.size() >= 4 && s[0] == 0 && s[1] == 0 && (s[2] == 1 || (s[2] == 0 && s[3] == 1));
    if (!startsWithStartCode)
        types.push_back(-1);
    for (size_t i = 0; i + 3 < s.size(); ++i) {
        if (s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1) {
            types.push_back(s[i + 3] & 0x1f);
            i += 2;
        }
    }
    return types;
}

} // namespace codectest
