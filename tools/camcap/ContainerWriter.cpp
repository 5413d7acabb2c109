#include "ContainerWriter.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <QFile>
#include <algorithm>
#include <cstring>

#include "AnnexB.h"

namespace {

constexpr AVRational kMicroseconds{1, 1000000};

AVCodecID codecId(int codec)
{
    switch (codec) {
    case CODEC_TYPE_H264: return AV_CODEC_ID_H264;
    case CODEC_TYPE_HEVC: return AV_CODEC_ID_HEVC;
    case CODEC_TYPE_MJPEG: return AV_CODEC_ID_MJPEG;
    default: return AV_CODEC_ID_NONE;
    }
}

QString averrorText(int error)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(error, text, sizeof text);
    return QString::fromLocal8Bit(text);
}

} // namespace

std::unique_ptr<FrameSink> ContainerWriter::open(const QString& path, const StreamInfo& info, QString* error)
{
    const char* muxer = info.container == QLatin1String("mp4") ? "mp4" : "matroska";
    if (codecId(info.codec) == AV_CODEC_ID_NONE) {
        *error = QStringLiteral("%1 cannot hold this stream").arg(info.container);
        return nullptr;
    }
    AVFormatContext* context = nullptr;
    const QByteArray file = QFile::encodeName(path);
    int result = avformat_alloc_output_context2(&context, nullptr, muxer, file.constData());
    if (result < 0) {
        *error = averrorText(result);
        return nullptr;
    }
    result = avio_open(&context->pb, file.constData(), AVIO_FLAG_WRITE);
    if (result < 0) {
        avformat_free_context(context);
        *error = averrorText(result);
        return nullptr;
    }
    return std::unique_ptr<FrameSink>(new ContainerWriter(context, info));
}

ContainerWriter::ContainerWriter(AVFormatContext* context, const StreamInfo& info) : m_context(context), m_info(info) {}

ContainerWriter::~ContainerWriter()
{
    finish();
    avio_closep(&m_context->pb);
    avformat_free_context(m_context);
}

bool ContainerWriter::failed(const char* what, int averror)
{
    m_error = QStringLiteral("%1: %2").arg(QLatin1String(what), averrorText(averror));
    return false;
}

bool ContainerWriter::start(const Frame& key)
{
    m_stream = avformat_new_stream(m_context, nullptr);
    if (!m_stream)
        return failed("new stream", AVERROR(ENOMEM));
    AVCodecParameters* par = m_stream->codecpar;
    par->codec_type = AVMEDIA_TYPE_VIDEO;
    par->codec_id = codecId(m_info.codec);
    par->width = m_info.width;
    par->height = m_info.height;
    const std::vector<uint8_t> sets = annexb::parameterSets(m_info.codec, key.data, key.size);
    if (!sets.empty()) {
        par->extradata = static_cast<uint8_t*>(av_mallocz(sets.size() + AV_INPUT_BUFFER_PADDING_SIZE));
        if (!par->extradata)
            return failed("parameter sets", AVERROR(ENOMEM));
        std::memcpy(par->extradata, sets.data(), sets.size());
        par->extradata_size = int(sets.size());
    }
    m_stream->time_base = {1, 90000};
    const int result = avformat_write_header(m_context, nullptr);
    if (result < 0)
        return failed("header", result);
    m_started = true;
    return true;
}

bool ContainerWriter::write(const Frame& frame)
{
    if (m_finished)
        return false;
    if (!m_started) {
        // Nothing before the first key frame can be decoded.
        if (!frame.key)
            return true;
        if (!start(frame))
            return false;
        m_firstUs = frame.timeUs;
    }
    if (m_heldUs >= 0 && !writeHeld(frame.timeUs))
        return false;
    m_held.assign(frame.data, frame.data + frame.size);
    m_heldUs = frame.timeUs;
    m_heldKey = frame.key;
    return true;
}

bool ContainerWriter::writeHeld(int64_t untilUs)
{
    AVPacket* packet = av_packet_alloc();
    if (!packet)
        return failed("packet", AVERROR(ENOMEM));
    int64_t pts = av_rescale_q(m_heldUs - m_firstUs, kMicroseconds, m_stream->time_base);
    pts = std::max(pts, m_lastPts + 1);  // never two frames at one time
    const int64_t end = av_rescale_q(untilUs - m_firstUs, kMicroseconds, m_stream->time_base);
    packet->data = m_held.data();
    packet->size = int(m_held.size());
    packet->stream_index = m_stream->index;
    packet->pts = packet->dts = pts;
    packet->duration = std::max<int64_t>(1, end - pts);
    packet->flags = m_heldKey ? AV_PKT_FLAG_KEY : 0;
    const int result = av_write_frame(m_context, packet);
    av_packet_free(&packet);
    m_lastPts = pts;
    m_heldUs = -1;
    ++m_written;
    return result < 0 ? failed("write", result) : true;
}

bool ContainerWriter::finish()
{
    if (m_finished)
        return m_error.isEmpty();
    m_finished = true;
    if (!m_started)
        return m_error.isEmpty();
    bool ok = true;
    if (m_heldUs >= 0) {
        // The last frame lasts as long as the average one before it.
        const int64_t average = m_written > 0 ? (m_heldUs - m_firstUs) / m_written : 33333;
        ok = writeHeld(m_heldUs + std::max<int64_t>(average, 1));
    }
    const int result = av_write_trailer(m_context);
    if (result < 0)
        ok = failed("trailer", result);
    if (avio_closep(&m_context->pb) < 0 && ok)
        ok = failed("close", AVERROR(EIO));
    return ok;
}

extern "C" __attribute__((visibility("default"))) FrameSink* camcap_open_container(const QString& path,
                                                                                   const StreamInfo& info,
                                                                                   QString* error)
{
    return ContainerWriter::open(path, info, error).release();
}
