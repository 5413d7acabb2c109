#pragma once
// A frame of the host's pin pool: fixed storage, a payload size set by the producer.

#include <cstdint>
#include <memory>

class MediaFrame {
public:
    explicit MediaFrame(unsigned int capacity);
    MediaFrame(const MediaFrame&) = delete;
    MediaFrame& operator=(const MediaFrame&) = delete;

    virtual uint8_t* data();
    virtual unsigned int capacity();
    virtual void setSize(int size);
    virtual ~MediaFrame();

    int size() const { return m_size; }
    const uint8_t* bytes() const { return m_storage.get(); }

private:
    std::unique_ptr<uint8_t[]> m_storage;
    unsigned int m_capacity;
    int m_size = 0;
};
