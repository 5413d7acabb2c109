#include "Codec/MediaBuffer.h"

namespace Codec {
MediaBuffer::~MediaBuffer() = default;
MediaFrame::~MediaFrame() = default;
} // namespace Codec
