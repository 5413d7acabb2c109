#pragma once
// The host's format record. Every integer is -1 ("not set") until someone fills it; an
// element reads and writes only the fields it cares about and carries the rest along.

#include <QList>
#include <QMetaType>
#include <cstdint>

enum MajorType { MAJOR_TYPE_VIDEO = 0, MAJOR_TYPE_AUDIO = 1 };
enum MinorType { MINOR_TYPE_RAW = 0, MINOR_TYPE_CODED = 1 };
enum MediaCodecType {
    CODEC_TYPE_NONE = -1,
    CODEC_TYPE_H264 = 6,
    CODEC_TYPE_HEVC = 7,
    CODEC_TYPE_MJPEG = 9,
    CODEC_TYPE_YUYV = 11,
    CODEC_TYPE_NV12 = 12,
};
enum MediaRawType { RAW_TYPE_NONE = -1 };

struct MediaFormat {
    int32_t majorType = -1;
    int32_t minorType = -1;
    int32_t codecType = -1;
    int32_t rawType = -1;
    int32_t bitRate = -1;
    int32_t frameRateNum = -1;
    int32_t frameRateDen = -1;
    int32_t width = -1;
    int32_t height = -1;
    int32_t sampleRate = -1;
    int32_t channels = -1;
    int32_t bitsPerSample = -1;
    bool interlaced = false;

    bool operator==(const MediaFormat& o) const
    {
        return majorType == o.majorType && minorType == o.minorType &&
               codecType == o.codecType && rawType == o.rawType && bitRate == o.bitRate &&
               frameRateNum == o.frameRateNum && frameRateDen == o.frameRateDen &&
               width == o.width && height == o.height && sampleRate == o.sampleRate &&
               channels == o.channels && bitsPerSample == o.bitsPerSample &&
               interlaced == o.interlaced;
    }
    bool operator!=(const MediaFormat& o) const { return !(*this == o); }
};

// Registers "MediaFormat" and "QList<MediaFormat>" (with its sequential-iterable converter)
// on first use; safe to call from any thread, any number of times.
void registerMediaFormatMetaTypes();

Q_DECLARE_METATYPE(MediaFormat)
