#include "MediaFrame.h"

// Storage is left uninitialised: pages are only committed once a producer writes them,
// so a pool of large frames costs little until used.
MediaFrame::MediaFrame(unsigned int capacity)
    : m_storage(new uint8_t[capacity ? capacity : 1]), m_capacity(capacity)
{
}

MediaFrame::~MediaFrame() = default;

uint8_t* MediaFrame::data() { return m_storage.get(); }
unsigned int MediaFrame::capacity() { return m_capacity; }
void MediaFrame::setSize(int size) { m_size = size; }
