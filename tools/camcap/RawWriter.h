#pragma once
// The stream exactly as delivered, one write() per frame.

#include "FrameSink.h"
#include "UniqueFd.h"

class RawWriter : public FrameSink {
public:
    // Takes ownership of `fd` unless it is standard output.
    explicit RawWriter(int fd);
    ~RawWriter() override;
    bool write(const Frame& frame) override;
    bool finish() override;

private:
    int m_fd;
    UniqueFd m_owned;
    int64_t m_complete = 0;  // bytes of whole frames written
};
