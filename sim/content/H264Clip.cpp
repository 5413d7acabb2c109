// H.264 clip with openh264: Constrained Baseline, one slice, an IDR every keyInterval
// pictures with SPS and PPS in front of it, P pictures in between.
#include "content/Clip.h"
#include "content/Pattern.h"

#include <wels/codec_api.h>

#include <cstdio>
#include <cstring>
#include <memory>

namespace simcam {

namespace {

struct EncoderDeleter {
    void operator()(ISVCEncoder* e) const
    {
        e->Uninitialize();
        WelsDestroySVCEncoder(e);
    }
};

} // namespace

CodedClip encodeH264Clip(const Pattern& pattern, const ContentOptions& options)
{
    const int w = pattern.width(), h = pattern.height();
    ISVCEncoder* raw = nullptr;
    if (WelsCreateSVCEncoder(&raw) != 0 || !raw) {
        std::fprintf(stderr, "content: cannot create the H.264 encoder\n");
        return {};
    }
    std::unique_ptr<ISVCEncoder, EncoderDeleter> enc(raw);
    int log = WELS_LOG_ERROR;
    enc->SetOption(ENCODER_OPTION_TRACE_LEVEL, &log);

    const int bitrate = clipBitrate(w, h, options.frameRate);
    SEncParamExt p;
    enc->GetDefaultParams(&p);
    p.iUsageType = CAMERA_VIDEO_REAL_TIME;
    p.iPicWidth = w;
    p.iPicHeight = h;
    p.iRCMode = RC_BITRATE_MODE;
    p.iTargetBitrate = bitrate;
    p.iMaxBitrate = bitrate;
    p.fMaxFrameRate = float(options.frameRate);
    p.iTemporalLayerNum = 1;
    p.iSpatialLayerNum = 1;
    p.iComplexityMode = LOW_COMPLEXITY;
    p.uiIntraPeriod = unsigned(options.keyInterval);
    p.iNumRefFrame = 1;
    p.eSpsPpsIdStrategy = CONSTANT_ID; // parameter sets repeated unchanged at every IDR
    p.bPrefixNalAddingCtrl = false;
    p.bEnableSSEI = false;
    p.iEntropyCodingModeFlag = 0;
    p.bEnableFrameSkip = false; // otherwise rate control may drop a picture
    p.iMultipleThreadIdc = 1;
    p.bEnableDenoise = false;
    p.bEnableSceneChangeDetect = false; // IDRs strictly on the key interval
    p.bEnableBackgroundDetection = false;
    p.bEnableAdaptiveQuant = false;
    SSpatialLayerConfig& layer = p.sSpatialLayers[0];
    layer.iVideoWidth = w;
    layer.iVideoHeight = h;
    layer.fFrameRate = float(options.frameRate);
    layer.iSpatialBitrate = bitrate;
    layer.iMaxSpatialBitrate = bitrate;
    layer.uiProfileIdc = PRO_BASELINE;
    layer.sSliceArgument.uiSliceMode = SM_SINGLE_SLICE;
    layer.sSliceArgument.uiSliceNum = 1;
    if (enc->InitializeExt(&p) != cmResultSuccess) {
        std::fprintf(stderr, "content: H.264 encoder refused %dx%d\n", w, h);
        return {};
    }
    int format = videoFormatI420; // the only input format EncodeFrame accepts
    enc->SetOption(ENCODER_OPTION_DATAFORMAT, &format);

    const size_t cw = size_t(w / 2), ch = size_t(h / 2);
    std::vector<uint8_t> yuv(size_t(w) * h + 2 * cw * ch);
    uint8_t* y = yuv.data();
    uint8_t* u = y + size_t(w) * h;
    uint8_t* v = u + cw * ch;

    CodedClip clip;
    for (int i = 0; i < options.clipFrames; ++i) {
        pattern.renderI420(uint64_t(i), y, size_t(w), u, cw, v, cw);
        SSourcePicture pic;
        std::memset(&pic, 0, sizeof pic);
        pic.iColorFormat = videoFormatI420;
        pic.iPicWidth = w;
        pic.iPicHeight = h;
        pic.iStride[0] = w;
        pic.iStride[1] = pic.iStride[2] = int(cw);
        pic.pData[0] = y;
        pic.pData[1] = u;
        pic.pData[2] = v;
        pic.uiTimeStamp = int64_t(i) * 1000 / options.frameRate;
        SFrameBSInfo info;
        std::memset(&info, 0, sizeof info);
        if (enc->EncodeFrame(&pic, &info) != cmResultSuccess ||
            info.eFrameType == videoFrameTypeSkip || info.eFrameType == videoFrameTypeInvalid) {
            std::fprintf(stderr, "content: H.264 encoder gave no picture for frame %d\n", i);
            return {};
        }
        // The parameter sets come as a layer of their own before the picture's layer; one
        // access unit is everything, in order.
        std::vector<uint8_t> au;
        for (int l = 0; l < info.iLayerNum; ++l) {
            const SLayerBSInfo& L = info.sLayerInfo[l];
            size_t n = 0;
            for (int k = 0; k < L.iNalCount; ++k)
                n += size_t(L.pNalLengthInByte[k]);
            au.insert(au.end(), L.pBsBuf, L.pBsBuf + n);
        }
        clip.units.push_back(std::move(au));
        clip.key.push_back(info.eFrameType == videoFrameTypeIDR);
    }
    return clip;
}

} // namespace simcam
