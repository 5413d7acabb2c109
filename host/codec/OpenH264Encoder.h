#pragma once
// The built-in H.264 encoder, on openh264: Constrained Baseline, one thread, one slice,
// no frame skipping, nothing held back.
//
// What a caller can rely on:
// - every picture putFrame() accepts gives exactly one packet, the whole picture in Annex B
//   form; each IDR has SPS and PPS in front, and IDRs come every key-frame interval;
// - getPacket() never returns null: with no packet waiting it returns a record with
//   status -1 and no buffer;
// - putFrame() takes the row stride and line count from the frame, or from the settings
//   when the frame leaves them 0, and refuses a frame whose `size` cannot hold the picture;
// - configure() applies what set() gathered; a failed configure leaves the encoder
//   unconfigured;
// - reset() keeps the configuration and drops everything else: the next picture starts a
//   new stream with an IDR.
// Not thread-safe: one caller at a time.

#include <deque>
#include <memory>
#include <vector>

#include "Codec/MediaCodec.h"
#include "EncoderSettings.h"
#include "PictureConverter.h"

class ISVCEncoder;

namespace Codec {

class OpenH264Encoder final : public Encoder {
public:
    OpenH264Encoder();
    ~OpenH264Encoder() override;

    int set(Configure key, unsigned int value) override;
    int configure() override;
    int putFrame(MediaFrame* frame) override;
    std::unique_ptr<MediaPacket> getPacket() override;
    int reset() override;

private:
    struct EncoderCloser {
        void operator()(ISVCEncoder* encoder) const;
    };
    using EncoderPtr = std::unique_ptr<ISVCEncoder, EncoderCloser>;

    bool openEncoder();
    bool encode();

    EncoderSettings m_requested;  // gathered by set()
    EncoderSettings m_settings;   // accepted by the last configure()
    bool m_configured = false;
    EncoderPtr m_encoder;  // opened by configure(), again by the first picture after reset()
    PictureConverter m_converter;
    uint64_t m_pictures = 0;  // encoded since the stream began; gives the time stamps
    std::deque<std::vector<uint8_t>> m_packets;
};

} // namespace Codec
