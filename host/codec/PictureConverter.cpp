#include "PictureConverter.h"

#include <libyuv/convert.h>

#include <climits>

#include "Codec/MediaBuffer.h"

namespace Codec {

bool PictureConverter::configure(uint64_t format, uint32_t width, uint32_t height)
{
    m_planes.clear();
    m_width = m_height = 0;
    if (format != PIXEL_FORMAT_NV12 && format != PIXEL_FORMAT_YUYV)
        return false;
    if (width == 0 || height == 0 || width % 2 || height % 2 || width > INT_MAX / 2 ||
        height > INT_MAX / 2)
        return false;
    m_format = format;
    m_width = int(width);
    m_height = int(height);
    m_planes.resize(size_t(width) * height * 3 / 2);
    return true;
}

uint64_t PictureConverter::requiredBytes(uint32_t horStride, uint32_t verStride) const
{
    if (m_planes.empty() || horStride > uint32_t(INT_MAX) || verStride < uint32_t(m_height))
        return 0;
    const uint64_t stride = horStride;
    if (m_format == PIXEL_FORMAT_YUYV) {
        const uint64_t row = 2 * uint64_t(m_width);
        return stride < row ? 0 : stride * (m_height - 1) + row;
    }
    const uint64_t row = uint64_t(m_width);
    if (stride < row)
        return 0;
    return stride * verStride + stride * (m_height / 2 - 1) + row;
}

bool PictureConverter::convert(const uint8_t* data, uint64_t size, uint32_t horStride,
                               uint32_t verStride)
{
    const uint64_t needed = requiredBytes(horStride, verStride);
    if (!data || needed == 0 || needed > size)
        return false;
    uint8_t* y = m_planes.data();
    uint8_t* u = y + lumaBytes();
    uint8_t* v = u + lumaBytes() / 4;
    const int stride = int(horStride);
    const int cStride = m_width / 2;
    int rv;
    if (m_format == PIXEL_FORMAT_YUYV) {
        rv =
            libyuv::YUY2ToI420(data, stride, y, m_width, u, cStride, v, cStride, m_width, m_height);
    } else {
        const uint8_t* uv = data + uint64_t(horStride) * verStride;
        rv = libyuv::NV12ToI420(data, stride, uv, stride, y, m_width, u, cStride, v, cStride,
                                m_width, m_height);
    }
    return rv == 0;
}

I420Picture PictureConverter::picture() const
{
    I420Picture p;
    if (m_planes.empty())
        return p;
    p.y = m_planes.data();
    p.u = p.y + lumaBytes();
    p.v = p.u + lumaBytes() / 4;
    p.yStride = m_width;
    p.cStride = m_width / 2;
    p.width = m_width;
    p.height = m_height;
    return p;
}

} // namespace Codec
