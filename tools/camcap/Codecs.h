#pragma once
// The codecs camcap names on its command line and in its reports, their V4L2 FourCCs, and
// the order in which the element negotiates a camera format for an H.264 request.

#include <QString>
#include <cstdint>

#include "MediaFormat.h"

namespace codecs {

struct Codec {
    int codec;  // MediaCodecType
    const char* name;
    uint32_t fourcc;
};

inline constexpr Codec kAll[] = {{CODEC_TYPE_H264, "h264", 0x34363248}, {CODEC_TYPE_HEVC, "hevc", 0x43564548},
                                 {CODEC_TYPE_MJPEG, "mjpeg", 0x47504a4d}, {CODEC_TYPE_YUYV, "yuyv", 0x56595559},
                                 {CODEC_TYPE_NV12, "nv12", 0x3231564e}};

// The element answers an H.264 request with the first of these the camera has at the size.
inline constexpr int kNegotiationOrder[] = {CODEC_TYPE_H264, CODEC_TYPE_NV12, CODEC_TYPE_YUYV, CODEC_TYPE_MJPEG};

inline const Codec* byCodec(int codec)
{
    for (const Codec& c : kAll)
        if (c.codec == codec)
            return &c;
    return nullptr;
}

inline const Codec* byFourcc(uint32_t fourcc)
{
    for (const Codec& c : kAll)
        if (c.fourcc == fourcc)
            return &c;
    return nullptr;
}

inline QString name(int codec)
{
    const Codec* c = byCodec(codec);
    return c ? QString::fromLatin1(c->name) : QString::number(codec);
}

inline int byName(const QString& name)
{
    for (const Codec& c : kAll)
        if (name == QLatin1String(c.name))
            return c.codec;
    return -1;
}

// Raw pictures are encoded by the element; coded streams pass through.
inline bool isRaw(int codec) { return codec == CODEC_TYPE_YUYV || codec == CODEC_TYPE_NV12; }

} // namespace codecs
