#include "ContainerWriter.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <algorithm>
#include <cerrno>
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

struct AvioCallbacks {
#if LIBAVFORMAT_VERSION_MAJOR >= 61
    static int write(void* opaque, const uint8_t* data, int size)
#else
    static int write(void* opaque, uint8_t* data, int size)
#endif
    {
        return static_cast<ContainerWriter*>(opaque)->writeBytes(data, size);
    }
    static int64_t seek(void* opaque, int64_t offset, int whence)
    {
        return static_cast<ContainerWriter*>(opaque)->seekTo(offset, whence);
    }
};

std::unique_ptr<FrameSink> ContainerWriter::open(int fd, const QString& path, const StreamInfo& info,
                                                  QString* error)
{
    std::unique_ptr<ContainerWriter> writer(new ContainerWriter(fd, info));
    if (codecId(info.codec) == AV_CODEC_ID_NONE) {
        *error = QStringLiteral("%1 cannot hold this stream").arg(info.container);
        return nullptr;
    }
    const char* muxer = info.container == QLatin1String("mp4") ? "mp4" : "matroska";
    int result = avformat_alloc_output_context2(&writer->m_context, nullptr, muxer, QFile::encodeName(path).constData());
    if (result < 0) {
        *error = averrorText(result);
        return nullptr;
    }
    constexpr int kBufferSize = 1 << 16;
    auto* buffer = static_cast<unsigned char*>(av_malloc(kBufferSize));
    writer->m_context->pb = buffer ? avio_alloc_context(buffer, kBufferSize, 1, writer.get(), nullptr,
                                                        &AvioCallbacks::write, &AvioCallbacks::seek)
                                   : nullptr;
    if (!writer->m_context->pb) {
        av_free(buffer);
        *error = averrorText(AVERROR(ENOMEM));
        return nullptr;
    }
    writer->m_context->flags |= AVFMT_FLAG_CUSTOM_IO;
    return writer;
}

ContainerWriter::ContainerWriter(int fd, const StreamInfo& info) : m_fd(fd), m_info(info) {}

ContainerWriter::~ContainerWriter()
{
    finish();
    if (m_context) {
        if (m_context->pb)
            av_freep(&m_context->pb->buffer);
        avio_context_free(&m_context->pb);
        avformat_free_context(m_context);
    }
}

// libavformat's output goes through here, so that the disk filling up reaches the
// retention rules and a failed write leaves its errno.
int ContainerWriter::writeBytes(const uint8_t* data, int size)
{
    m_errno = outputfile::writeAll(m_fd.get(), data, size_t(size), m_makeRoom);
    return m_errno ? AVERROR(m_errno) : size;
}

int64_t ContainerWriter::seekTo(int64_t offset, int whence)
{
    if (whence & AVSEEK_SIZE) {
        struct stat st;
        return ::fstat(m_fd.get(), &st) == 0 ? int64_t(st.st_size) : AVERROR(errno);
    }
    const off_t at = ::lseek(m_fd.get(), offset, whence & ~AVSEEK_FORCE);
    return at < 0 ? AVERROR(errno) : int64_t(at);
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
    // Fragments only where endPiece() says, each with its own base offset (what browsers
    // and streaming players want); the index at the end is for seeking.
    AVDictionary* options = nullptr;
    av_dict_set(&options, "movflags", "frag_custom+empty_moov+default_base_moof", 0);
    const int result = avformat_write_header(m_context, &options);
    av_dict_free(&options);
    if (result < 0)
        return failed("header", result);
    m_started = true;
    return endPiece();
}

bool ContainerWriter::write(const Frame& frame)
{
    if (m_finished || !m_error.isEmpty())
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
    int result = 0;
    if (m_heldKey || m_heldUs - m_pieceUs >= kPieceUs) {
        if (m_pieceUs >= 0 && !endPiece()) {
            av_packet_free(&packet);
            return false;
        }
        m_pieceUs = m_heldUs;
    }
    result = av_write_frame(m_context, packet);
    av_packet_free(&packet);
    m_lastPts = pts;
    m_heldUs = -1;
    ++m_written;
    return result < 0 ? failed("write", result) : true;
}

bool ContainerWriter::endPiece()
{
    const int result = av_write_frame(m_context, nullptr);
    avio_flush(m_context->pb);
    if (result < 0 || m_context->pb->error < 0)
        return failed("write", result < 0 ? result : m_context->pb->error);
    m_complete = ::lseek(m_fd.get(), 0, SEEK_CUR);
    return true;
}

bool ContainerWriter::finish()
{
    if (m_finished)
        return m_error.isEmpty();
    m_finished = true;
    bool ok = m_error.isEmpty();
    if (m_started && ok) {
        if (m_heldUs >= 0) {
            // The last frame lasts as long as the average one before it.
            const int64_t average = m_written > 0 ? (m_heldUs - m_firstUs) / m_written : 33333;
            ok = writeHeld(m_heldUs + std::max<int64_t>(average, 1));
        }
        const int result = ok ? av_write_trailer(m_context) : 0;
        avio_flush(m_context->pb);
        if (ok && (result < 0 || m_context->pb->error < 0))
            ok = failed("trailer", result < 0 ? result : m_context->pb->error);
    }
    if (!ok)
        outputfile::cutBack(m_fd.get(), m_complete);
    if (::close(m_fd.release()) < 0 && ok)
        ok = failed("close", AVERROR(errno));
    return ok;
}

extern "C" __attribute__((visibility("default"))) FrameSink* camcap_open_container(int fd, const QString& path,
                                                                                   const StreamInfo& info,
                                                                                   QString* error)
{
    return ContainerWriter::open(fd, path, info, error).release();
}
