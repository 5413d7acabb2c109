#pragma once
// Where recorded frames go: a raw stream, a container, or a series of files.

#include <QString>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

struct Frame {
    const uint8_t* data = nullptr;
    size_t size = 0;
    int64_t timeUs = 0;  // when the frame reached the pin (steady clock)
    bool key = false;
};

class FrameSink {
public:
    virtual ~FrameSink() = default;
    // False once writing failed; error() says why.
    virtual bool write(const Frame& frame) = 0;
    // Completes the file so it plays to the last frame written; idempotent.
    virtual bool finish() = 0;
    QString error() const { return m_error; }

protected:
    QString m_error;
};

// What a file of the recording is made of.
struct StreamInfo {
    QString container;  // "raw", "mp4", "mkv"
    int codec = -1;     // MediaCodecType
    int width = 0;
    int height = 0;
};

// Opens one file of the recording; null with *error set when it cannot be written.
std::unique_ptr<FrameSink> openSink(const QString& path, const StreamInfo& info, QString* error);

// The container module's entry point (ContainerWriter.cpp), found by openSink when it loads
// the module for the first container file.
extern "C" FrameSink* camcap_open_container(const QString& path, const StreamInfo& info, QString* error);
