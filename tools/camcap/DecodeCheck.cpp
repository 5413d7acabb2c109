// The decode check of camcap --check, in the container module: a recorded elementary stream
// is demuxed and decoded with libavcodec, counting what the decoder refuses.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <memory>

#include "ContainerModule.h"

namespace {

QString avError(int code)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return QString::fromLocal8Bit(text);
}

struct InputCloser {
    void operator()(AVFormatContext* c) const { avformat_close_input(&c); }
};
struct CodecCloser {
    void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct PacketFree {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct FrameFree {
    void operator()(AVFrame* f) const { av_frame_free(&f); }
};

// Takes every frame the decoder has ready.
void drain(AVCodecContext* decoder, AVFrame* frame, DecodeResult* result)
{
    while (avcodec_receive_frame(decoder, frame) == 0) {
        if (frame->decode_error_flags || (frame->flags & AV_FRAME_FLAG_CORRUPT))
            ++result->errors;
        ++result->frames;
        av_frame_unref(frame);
    }
}

} // namespace

extern "C" bool camcap_decode_check(const char* path, const char* codec, DecodeResult* result, QString* error)
{
    *result = DecodeResult{};
    const AVInputFormat* demuxer = av_find_input_format(codec);
    AVFormatContext* opened = nullptr;
    if (int rc = avformat_open_input(&opened, path, demuxer, nullptr); rc < 0) {
        *error = avError(rc);
        return false;
    }
    std::unique_ptr<AVFormatContext, InputCloser> input(opened);
    if (int rc = avformat_find_stream_info(input.get(), nullptr); rc < 0 || input->nb_streams == 0) {
        *error = rc < 0 ? avError(rc) : QStringLiteral("no stream");
        return false;
    }
    const AVCodecParameters* parameters = input->streams[0]->codecpar;
    const AVCodec* decoderCodec = avcodec_find_decoder(parameters->codec_id);
    if (!decoderCodec) {
        *error = QStringLiteral("no decoder for %1").arg(QLatin1String(codec));
        return false;
    }
    std::unique_ptr<AVCodecContext, CodecCloser> decoder(avcodec_alloc_context3(decoderCodec));
    avcodec_parameters_to_context(decoder.get(), parameters);
    decoder->err_recognition = AV_EF_EXPLODE | AV_EF_CRCCHECK;
    if (int rc = avcodec_open2(decoder.get(), decoderCodec, nullptr); rc < 0) {
        *error = avError(rc);
        return false;
    }
    std::unique_ptr<AVPacket, PacketFree> packet(av_packet_alloc());
    std::unique_ptr<AVFrame, FrameFree> frame(av_frame_alloc());
    while (av_read_frame(input.get(), packet.get()) >= 0) {
        ++result->packets;
        if (avcodec_send_packet(decoder.get(), packet.get()) < 0)
            ++result->errors;
        av_packet_unref(packet.get());
        drain(decoder.get(), frame.get(), result);
    }
    avcodec_send_packet(decoder.get(), nullptr);
    drain(decoder.get(), frame.get(), result);
    return true;
}
