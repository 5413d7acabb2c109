#pragma once
// Where recorded frames go: a raw stream, a container, or a series of files.

#include <QString>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "OutputFile.h"

struct Frame {
    const uint8_t* data = nullptr;
    size_t size = 0;
    int64_t timeUs = 0;      // when the frame reached the pin (steady clock)
    int64_t intervalUs = 0;  // the usual time between frames, as seen so far
    bool key = false;
};

class FrameSink {
public:
    virtual ~FrameSink() = default;
    // False once writing failed; error() says why.
    virtual bool write(const Frame& frame) = 0;
    // Completes the file so it plays to the last frame written; idempotent. After a failed
    // write the file is cut back to its last complete piece (fragment, cluster or frame),
    // which plays.
    virtual bool finish() = 0;
    QString error() const { return m_error; }
    bool diskFull() const { return outputfile::isDiskFull(m_errno); }
    // Asked when a write finds the disk full: frees space so that the write can go on.
    void setMakeRoom(outputfile::MakeRoom makeRoom) { m_makeRoom = std::move(makeRoom); }

protected:
    QString m_error;
    int m_errno = 0;  // of the write that failed
    outputfile::MakeRoom m_makeRoom;
};

// What a file of the recording is made of.
struct StreamInfo {
    QString container;  // "raw", "mp4", "mkv"
    int codec = -1;     // MediaCodecType
    int width = 0;
    int height = 0;
};

// Writes a created file (or standard output, fd 1); null with *error set when the
// container cannot be set up.
std::unique_ptr<FrameSink> openSink(outputfile::Created file, const StreamInfo& info, QString* error);

// The container module's entry point (ContainerWriter.cpp), found by openSink when it loads
// the module for the first container file. Takes the descriptor.
extern "C" FrameSink* camcap_open_container(int fd, const QString& path, const StreamInfo& info, QString* error);
