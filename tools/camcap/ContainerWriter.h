#pragma once
// An .mp4 or .mkv file muxed with libavformat. Each frame keeps the time it reached the pin;
// the codec parameters come from the stream's own parameter sets, so the file starts at
// the first key frame. finish() writes the index (mp4 cannot play without it).

#include <memory>
#include <vector>

#include "FrameSink.h"

struct AVFormatContext;
struct AVStream;

class ContainerWriter : public FrameSink {
public:
    static std::unique_ptr<FrameSink> open(const QString& path, const StreamInfo& info, QString* error);
    ~ContainerWriter() override;
    bool write(const Frame& frame) override;
    bool finish() override;

private:
    ContainerWriter(AVFormatContext* context, const StreamInfo& info);
    bool start(const Frame& key);
    // Writes the held frame, which lasts until `untilUs`.
    bool writeHeld(int64_t untilUs);
    bool failed(const char* what, int averror);

    AVFormatContext* m_context;
    AVStream* m_stream = nullptr;
    StreamInfo m_info;
    bool m_started = false;
    bool m_finished = false;
    // One frame is held back until the next tells how long it lasts.
    std::vector<uint8_t> m_held;
    int64_t m_heldUs = -1;
    bool m_heldKey = false;
    int64_t m_firstUs = -1;
    int64_t m_lastPts = -1;
    int64_t m_written = 0;
};
