#include "OpenH264Encoder.h"

#include <wels/codec_api.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>

#include "Logger.h"

namespace Codec {

namespace {

// Owns one packet's bytes; the receiver deletes it through MediaBuffer's destructor.
class PacketBuffer final : public MediaBuffer {
public:
    explicit PacketBuffer(std::vector<uint8_t> bytes) : m_bytes(std::move(bytes))
    {
        data = m_bytes.data();
        size = length = uint32_t(m_bytes.size());
    }

private:
    std::vector<uint8_t> m_bytes;
};

// openh264's log lines go to the host log.
void traceToLogger(void*, int level, const char* message)
{
    std::string text = message ? message : "";
    int hostLevel = level <= WELS_LOG_ERROR ? 0 : level <= WELS_LOG_WARNING ? 1 : 4;
    // Skipping is off on purpose (one packet per picture); its warning about that is noise.
    if (text.find("without enabling skip frame") != std::string::npos)
        hostLevel = 4;
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.pop_back();
    Logger::logger_printf(hostLevel, "H264Encoder: openh264: %s\n", text.c_str());
}

} // namespace

void OpenH264Encoder::EncoderCloser::operator()(ISVCEncoder* encoder) const
{
    encoder->Uninitialize();
    WelsDestroySVCEncoder(encoder);
}

OpenH264Encoder::OpenH264Encoder() = default;
OpenH264Encoder::~OpenH264Encoder() = default;

int OpenH264Encoder::set(Configure key, unsigned int value)
{
    const int rv = m_requested.set(key, value);
    if (rv != 0)
        Logger::logger_printf(1, "H264Encoder: WARN: setting %d = %u refused\n", int(key), value);
    return rv;
}

int OpenH264Encoder::configure()
{
    m_configured = false;
    m_encoder.reset();
    m_packets.clear();
    m_pictures = 0;

    const char* problem = m_requested.problem();
    if (*problem) {
        Logger::logger_printf(1, "H264Encoder: WARN: configure refused: %s\n", problem);
        return -1;
    }
    m_settings = m_requested;
    if (!m_converter.configure(m_settings.inputFormat, m_settings.width, m_settings.height) ||
        !openEncoder())
        return -1;
    m_configured = true;
    return 0;
}

bool OpenH264Encoder::openEncoder()
{
    ISVCEncoder* raw = nullptr;
    if (WelsCreateSVCEncoder(&raw) != 0 || !raw) {
        Logger::logger_printf(0, "H264Encoder: ERROR: cannot create an openh264 encoder\n");
        return false;
    }
    EncoderPtr encoder(raw);
    WelsTraceCallback callback = &traceToLogger;
    encoder->SetOption(ENCODER_OPTION_TRACE_CALLBACK, &callback);
    int traceLevel = WELS_LOG_WARNING;
    encoder->SetOption(ENCODER_OPTION_TRACE_LEVEL, &traceLevel);

    const EncoderSettings& s = m_settings;
    // openh264 plans rate control for 1..60 pictures a second.
    const float fps = float(std::clamp(s.frameRate(), 1.0, 60.0));
    const int bitRate = int(std::min<uint32_t>(s.effectiveBitRate(), INT32_MAX));

    SEncParamExt p;
    encoder->GetDefaultParams(&p);
    p.iUsageType = CAMERA_VIDEO_REAL_TIME;
    p.iPicWidth = int(s.width);
    p.iPicHeight = int(s.height);
    p.iRCMode = s.rateControl ? RC_BITRATE_MODE : RC_OFF_MODE;
    p.iTargetBitrate = bitRate;
    p.iMaxBitrate = bitRate;
    p.fMaxFrameRate = fps;
    p.iTemporalLayerNum = 1;
    p.iSpatialLayerNum = 1;
    p.iComplexityMode = LOW_COMPLEXITY;
    p.uiIntraPeriod = s.keyInterval;
    p.iNumRefFrame = 1;
    p.eSpsPpsIdStrategy = CONSTANT_ID;
    p.bPrefixNalAddingCtrl = false;
    p.bEnableSSEI = false;
    p.iEntropyCodingModeFlag = 0;  // CAVLC: baseline
    // With skipping on, rate control drops pictures, and the element needs one packet each.
    p.bEnableFrameSkip = false;
    p.iMultipleThreadIdc = 1;
    p.bEnableDenoise = false;
    // At the element's bit rate the quantiser sits at its floor, where neither changed a byte
    // of the stream here; they only cost a few per cent of the encoding time.
    p.bEnableAdaptiveQuant = false;
    p.bEnableBackgroundDetection = false;
    // IDRs strictly on the key-frame interval, never on a scene change.
    p.bEnableSceneChangeDetect = false;
    SSpatialLayerConfig& layer = p.sSpatialLayers[0];
    layer.iVideoWidth = int(s.width);
    layer.iVideoHeight = int(s.height);
    layer.fFrameRate = fps;
    layer.iSpatialBitrate = bitRate;
    layer.iMaxSpatialBitrate = bitRate;
    layer.uiProfileIdc = PRO_BASELINE;
    layer.sSliceArgument.uiSliceMode = SM_SINGLE_SLICE;
    layer.sSliceArgument.uiSliceNum = 1;

    if (encoder->InitializeExt(&p) != cmResultSuccess) {
        Logger::logger_printf(0,
                              "H264Encoder: ERROR: openh264 refused %ux%u at %.2f fps, %d bit/s\n",
                              s.width, s.height, double(fps), bitRate);
        return false;
    }
    int format = videoFormatI420;
    encoder->SetOption(ENCODER_OPTION_DATAFORMAT, &format);
    m_encoder = std::move(encoder);
    return true;
}

int OpenH264Encoder::putFrame(MediaFrame* frame)
{
    const char* problem = nullptr;
    if (!frame)
        problem = "no frame";
    else if (!m_configured)
        problem = "not configured";
    else if (!frame->data)
        problem = "frame without memory";
    else if (frame->format != m_settings.inputFormat || frame->width != m_settings.width ||
             frame->height != m_settings.height)
        problem = "frame format or size differs from the configuration";
    if (problem) {
        Logger::logger_printf(1, "H264Encoder: WARN: frame refused: %s\n", problem);
        return -1;
    }

    const uint32_t horStride =
        frame->horStride ? frame->horStride : m_settings.effectiveHorStride();
    const uint32_t verStride =
        frame->verStride ? frame->verStride : m_settings.effectiveVerStride();
    if (!m_converter.convert(static_cast<const uint8_t*>(frame->data), frame->size, horStride,
                             verStride)) {
        Logger::logger_printf(1,
                              "H264Encoder: WARN: frame refused: %u bytes cannot hold %ux%u with "
                              "stride %u and %u lines\n",
                              frame->size, frame->width, frame->height, horStride, verStride);
        return -1;
    }
    if (!m_encoder && !openEncoder())
        return -1;
    return encode() ? 0 : -1;
}

bool OpenH264Encoder::encode()
{
    const I420Picture in = m_converter.picture();
    SSourcePicture pic;
    std::memset(&pic, 0, sizeof pic);
    pic.iColorFormat = videoFormatI420;
    pic.iPicWidth = in.width;
    pic.iPicHeight = in.height;
    pic.iStride[0] = in.yStride;
    pic.iStride[1] = pic.iStride[2] = in.cStride;
    // openh264 does not write through these.
    pic.pData[0] = const_cast<uint8_t*>(in.y);
    pic.pData[1] = const_cast<uint8_t*>(in.u);
    pic.pData[2] = const_cast<uint8_t*>(in.v);
    pic.uiTimeStamp = llround(double(m_pictures) * 1000.0 / m_settings.frameRate());

    SFrameBSInfo info;
    std::memset(&info, 0, sizeof info);
    const int rv = m_encoder->EncodeFrame(&pic, &info);
    if (rv != cmResultSuccess) {
        Logger::logger_printf(0, "H264Encoder: ERROR: openh264 EncodeFrame returned %d\n", rv);
        return false;
    }
    ++m_pictures;
    if (info.eFrameType == videoFrameTypeSkip || info.eFrameType == videoFrameTypeInvalid)
        return true;  // accepted, but rate control left nothing to send

    size_t bytes = 0;
    for (int l = 0; l < info.iLayerNum; ++l)
        for (int n = 0; n < info.sLayerInfo[l].iNalCount; ++n)
            bytes += size_t(info.sLayerInfo[l].pNalLengthInByte[n]);
    std::vector<uint8_t> packet;
    packet.reserve(bytes);
    // Each layer's NAL units (start codes included) lie back to back in its buffer.
    for (int l = 0; l < info.iLayerNum; ++l) {
        const SLayerBSInfo& layer = info.sLayerInfo[l];
        size_t layerBytes = 0;
        for (int n = 0; n < layer.iNalCount; ++n)
            layerBytes += size_t(layer.pNalLengthInByte[n]);
        packet.insert(packet.end(), layer.pBsBuf, layer.pBsBuf + layerBytes);
    }
    if (!packet.empty())
        m_packets.push_back(std::move(packet));
    return true;
}

std::unique_ptr<MediaPacket> OpenH264Encoder::getPacket()
{
    auto record = std::make_unique<MediaPacket>();
    if (m_packets.empty())
        return record;  // status stays -1
    // Ownership passes to the receiver with the record.
    record->buffer = new PacketBuffer(std::move(m_packets.front()));
    record->status = 0;
    m_packets.pop_front();
    return record;
}

int OpenH264Encoder::reset()
{
    m_encoder.reset();
    m_packets.clear();
    m_pictures = 0;
    return 0;
}

} // namespace Codec
