#include "CaptureFormats.h"

#include <linux/videodev2.h>

#include "Codec/MediaBuffer.h"
#include "MediaFormat.h"

const CaptureFormat kCaptureFormats[5] = {
    {V4L2_PIX_FMT_H264, CODEC_TYPE_H264, false, true, -1, 0, Backlog::FlushAtKeyFrame},
    {V4L2_PIX_FMT_NV12, CODEC_TYPE_NV12, true, true, Codec::PIXEL_FORMAT_NV12, 1, Backlog::DropUnencoded},
    {V4L2_PIX_FMT_YUYV, CODEC_TYPE_YUYV, true, true, Codec::PIXEL_FORMAT_YUYV, 2, Backlog::DropUnencoded},
    {V4L2_PIX_FMT_MJPEG, CODEC_TYPE_MJPEG, false, true, -1, 0, Backlog::KeepLatest},
    {V4L2_PIX_FMT_HEVC, CODEC_TYPE_HEVC, false, false, -1, 0, Backlog::Split},
};

const CaptureFormat* captureFormatOf(uint32_t fourcc)
{
    for (const CaptureFormat& f : kCaptureFormats)
        if (f.fourcc == fourcc)
            return &f;
    return nullptr;
}

const CaptureFormat* captureFormatForCodec(int codecType)
{
    for (const CaptureFormat& f : kCaptureFormats)
        if (f.codecType == codecType)
            return &f;
    return nullptr;
}
