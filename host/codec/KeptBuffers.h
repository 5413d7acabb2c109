#pragma once
// Packet buffers the encoder keeps: one that comes with a non-zero status stays the
// library's, and deleting it aborts (the real library would free it a second time).

namespace Codec {
class MediaBuffer;
void keepBuffer(const MediaBuffer* buffer);
void unkeepBuffer(const MediaBuffer* buffer);
} // namespace Codec
