#include "EncoderSettings.h"

#include <algorithm>

namespace Codec {

namespace {
constexpr uint32_t kMaxDimension = 8192;

bool validFormat(uint32_t f)
{
    return f == PIXEL_FORMAT_NV12 || f == PIXEL_FORMAT_YUYV;
}
} // namespace

int EncoderSettings::set(Configure key, unsigned int value)
{
    switch (key) {
    case CONFIG_INPUT_FORMAT:
        inputFormat = value;
        return validFormat(value) ? 0 : -1;
    case CONFIG_WIDTH:
        width = value;
        return value > 0 && value <= kMaxDimension ? 0 : -1;
    case CONFIG_HEIGHT:
        height = value;
        return value > 0 && value <= kMaxDimension ? 0 : -1;
    case CONFIG_HOR_STRIDE:
        horStride = value;
        return 0;
    case CONFIG_VER_STRIDE:
        verStride = value;
        return 0;
    case CONFIG_INPUT_FPS_NUM:
        inputFpsNum = value;
        return value ? 0 : -1;
    case CONFIG_INPUT_FPS_DEN:
        inputFpsDen = value;
        return value ? 0 : -1;
    case CONFIG_OUTPUT_FPS_NUM:
        outputFpsNum = value;
        return value ? 0 : -1;
    case CONFIG_OUTPUT_FPS_DEN:
        outputFpsDen = value;
        return value ? 0 : -1;
    case CONFIG_RATE_CONTROL:
        rateControl = value != 0;
        return 0;
    case CONFIG_GOP:
        keyInterval = value;
        return 0;
    case CONFIG_BITRATE:
        bitRate = value;
        return 0;
    }
    return -1;
}

const char* EncoderSettings::problem() const
{
    if (!validFormat(inputFormat))
        return "input format missing or unknown";
    if (width == 0 || height == 0)
        return "picture size missing";
    if (width > kMaxDimension || height > kMaxDimension)
        return "picture too large";
    // Both inputs carry chroma for pairs of pixels, and the encoder's 4:2:0 for pairs of rows.
    if (width % 2 || height % 2)
        return "odd picture size";
    if (horStride && horStride < rowBytes())
        return "row stride smaller than a row";
    if (verStride && verStride < height)
        return "fewer lines than the height";
    if (!inputFpsNum || !inputFpsDen || !outputFpsNum || !outputFpsDen)
        return "zero in the frame rate";
    return "";
}

uint32_t EncoderSettings::rowBytes() const
{
    return inputFormat == PIXEL_FORMAT_YUYV ? 2 * width : width;
}

double EncoderSettings::frameRate() const
{
    if (outputFpsNum && outputFpsDen)
        return double(outputFpsNum) / outputFpsDen;
    if (inputFpsNum && inputFpsDen)
        return double(inputFpsNum) / inputFpsDen;
    return 30.0;
}

uint32_t EncoderSettings::effectiveBitRate() const
{
    if (bitRate)
        return bitRate;
    // A quarter of a bit per pixel: plenty for camera content at baseline.
    const double bits = double(width) * height * frameRate() / 4;
    return uint32_t(std::clamp(bits, 64000.0, 40000000.0));
}

} // namespace Codec
