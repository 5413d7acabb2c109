#pragma once
// An .mp4 or .mkv file muxed with libavformat, written so that a crash loses at most the
// last half second: MP4 is fragmented and MKV cut into clusters, a new piece at every key
// frame and at least every 500 ms, and each piece goes to the kernel as soon as it is
// complete. Each frame keeps the time it reached the pin; the codec parameters come from
// the stream's own parameter sets, so the file starts at the first key frame.

#include <memory>
#include <vector>

#include "FrameSink.h"
#include "UniqueFd.h"

struct AVFormatContext;
struct AVStream;

class ContainerWriter : public FrameSink {
public:
    // Takes the descriptor, also on failure.
    static std::unique_ptr<FrameSink> open(int fd, const QString& path, const StreamInfo& info, QString* error);
    ~ContainerWriter() override;
    bool write(const Frame& frame) override;
    bool finish() override;

    static constexpr int64_t kPieceUs = 500000;

private:
    ContainerWriter(int fd, const StreamInfo& info);
    bool start(const Frame& key);
    // Writes the held frame, which lasts until `untilUs`.
    bool writeHeld(int64_t untilUs);
    // Ends the current fragment or cluster and hands its bytes to the kernel.
    bool endPiece();
    bool failed(const char* what, int averror);
    // libavformat's output goes through these (AvioCallbacks).
    int writeBytes(const uint8_t* data, int size);
    int64_t seekTo(int64_t offset, int whence);
    friend struct AvioCallbacks;

    UniqueFd m_fd;
    StreamInfo m_info;
    AVFormatContext* m_context = nullptr;
    AVStream* m_stream = nullptr;
    bool m_started = false;
    bool m_finished = false;
    // One frame is held back until the next tells how long it lasts.
    std::vector<uint8_t> m_held;
    int64_t m_heldUs = -1;
    bool m_heldKey = false;
    int64_t m_firstUs = -1;
    int64_t m_lastPts = -1;
    int64_t m_written = 0;
    int64_t m_pieceUs = -1;    // when the current piece's first frame arrived
    int64_t m_complete = 0;    // bytes of the file up to the end of its last complete piece
};
