#pragma once
// Everything the element knows about a camera pixel format, in one table: the host's codec
// code for it, whether the element encodes it, how its capture frames are laid out, and
// what the capture loop does when the sender falls behind.

#include <cstdint>

enum class Backlog {
    FlushAtKeyFrame,  // H.264: a long backlog is dropped when a key frame arrives
    KeepLatest,       // MJPEG: pictures stand alone, a new one is dropped while two wait
    Split,            // HEVC: never dropped, cut into pin-sized pieces
    DropUnencoded,    // raw: pictures are not encoded while the sender is far behind
};

struct CaptureFormat {
    uint32_t fourcc;      // V4L2_PIX_FMT_*
    int codecType;        // MediaCodecType of the host
    bool raw;             // encoded to H.264 by the element; otherwise passed through
    bool negotiable;      // may be chosen for an H.264 request, in table order
    int pictureFormat;    // the codec library's picture code (raw only)
    int bytesPerPixel;    // row stride in units of the width (raw only)
    Backlog backlog;
};

// Negotiation order first: the camera's own H.264, then raw formats we encode (NV12 before
// YUYV), then MJPEG. HEVC is only ever asked for by name.
extern const CaptureFormat kCaptureFormats[5];

// Null for a format the element cannot capture.
const CaptureFormat* captureFormatOf(uint32_t fourcc);
const CaptureFormat* captureFormatForCodec(int codecType);
