#pragma once
// A format request as a host builds one: codec and size, every other field left unset.

#include "MediaFormat.h"

inline MediaFormat videoFormat(int codec, int width, int height)
{
    MediaFormat f;
    f.codecType = codec;
    f.width = width;
    f.height = height;
    return f;
}
