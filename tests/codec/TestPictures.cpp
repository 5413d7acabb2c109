#include "TestPictures.h"

#include <algorithm>

namespace codectest {

namespace {
uint32_t hash(uint32_t x)
{
    x ^= x >> 16;
    x *= 0x7feb352d;
    x ^= x >> 15;
    x *= 0x846ca68b;
    x ^= x >> 16;
    return x;
}
} // namespace

I420Image makePicture(int width, int height, int index, int noise)
{
    I420Image p;
    p.width = width;
    p.height = height;
    p.y.resize(size_t(width) * height);
    p.u.resize(size_t(width / 2) * (height / 2));
    p.v.resize(p.u.size());

    const int boxW = width / 4, boxH = height / 4;
    const int boxX = (index * 8) % (width - boxW), boxY = height / 3 + (index * 2) % (height / 3);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            int value = 16 + (3 * x + 2 * y + 4 * index) % 200;
            if (x >= boxX && x < boxX + boxW && y >= boxY && y < boxY + boxH)
                value = 235 - (x - boxX) / 4;
            if (noise > 0)
                value += int(hash(uint32_t(index * 7919 + y) * 65521u + uint32_t(x)) %
                             uint32_t(2 * noise + 1)) -
                         noise;
            p.y[size_t(y) * width + x] = uint8_t(std::clamp(value, 0, 255));
        }
    }
    for (int cy = 0; cy < height / 2; ++cy) {
        for (int cx = 0; cx < width / 2; ++cx) {
            p.u[size_t(cy) * (width / 2) + cx] = uint8_t(64 + (4 * cx + index) % 128);
            p.v[size_t(cy) * (width / 2) + cx] = uint8_t(192 - (3 * cy + 2 * index) % 128);
        }
    }
    return p;
}

CameraFrame::CameraFrame(const I420Image& picture, uint64_t format, uint32_t horStride,
                         uint32_t verStride)
{
    const bool yuyv = format == Codec::PIXEL_FORMAT_YUYV;
    const size_t w = size_t(picture.width), h = size_t(picture.height);
    const size_t stride = horStride ? horStride : (yuyv ? 2 * w : w);
    const size_t lines = verStride ? verStride : h;
    m_bytes.resize(yuyv ? stride * lines : stride * lines + stride * (lines / 2));
    for (size_t i = 0; i < m_bytes.size(); ++i)
        m_bytes[i] = uint8_t(hash(uint32_t(i)));

    if (yuyv) {
        for (size_t y = 0; y < h; ++y) {
            uint8_t* row = m_bytes.data() + y * stride;
            const size_t c = (y / 2) * (w / 2);
            for (size_t x = 0; x < w / 2; ++x) {
                row[4 * x + 0] = picture.y[y * w + 2 * x];
                row[4 * x + 1] = picture.u[c + x];
                row[4 * x + 2] = picture.y[y * w + 2 * x + 1];
                row[4 * x + 3] = picture.v[c + x];
            }
        }
    } else {
        for (size_t y = 0; y < h; ++y)
            std::copy_n(&picture.y[y * w], w, m_bytes.data() + y * stride);
        uint8_t* uvPlane = m_bytes.data() + stride * lines;
        for (size_t cy = 0; cy < h / 2; ++cy) {
            for (size_t cx = 0; cx < w / 2; ++cx) {
                uvPlane[cy * stride + 2 * cx] = picture.u[cy * (w / 2) + cx];
                uvPlane[cy * stride + 2 * cx + 1] = picture.v[cy * (w / 2) + cx];
            }
        }
    }

    m_frame.data = m_bytes.data();
    m_frame.size = uint32_t(m_bytes.size());
    m_frame.width = uint32_t(w);
    m_frame.height = uint32_t(h);
    m_frame.horStride = uint32_t(stride);
    m_frame.verStride = uint32_t(lines);
    m_frame.format = format;
}

} // namespace codectest
