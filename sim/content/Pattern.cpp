#include "content/Pattern.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace simcam {

namespace {

constexpr int kLumaPeriod = 512;   // pixels along the diagonal for one ramp up and down
constexpr int kCbPeriod = 256;     // chroma samples across
constexpr int kCrPeriod = 384;     // rows down
constexpr int kLumaSpeed = 4;      // ramp scroll per frame, pixels
constexpr int kBoxSpeedX = 6;
constexpr int kBoxSpeedY = 4;
constexpr uint8_t kBlack = 16, kWhite = 235, kNeutral = 128;
constexpr uint8_t kBoxCb = 90, kBoxCr = 200;

// Triangle wave over `period` samples between lo and hi: no hard edge where it wraps, so
// the encoders see smooth content apart from the box and stamp.
std::vector<uint8_t> triangle(int period, int lo, int hi, int extra)
{
    std::vector<uint8_t> t(size_t(period + extra));
    const int half = period / 2;
    for (size_t i = 0; i < t.size(); ++i) {
        int k = int(i % size_t(period));
        int up = k < half ? k : period - 1 - k;
        t[i] = uint8_t(lo + up * (hi - lo) / (half - 1));
    }
    return t;
}

// Position bouncing between 0 and range as p grows.
int bounce(uint64_t p, int range)
{
    if (range <= 0)
        return 0;
    uint64_t k = p % uint64_t(2 * range);
    return int(k < uint64_t(range) ? k : uint64_t(2 * range) - k);
}

} // namespace

struct Pattern::Frame {
    uint32_t stamp;
    int lumaShift, cbShift, crShift;
    int boxX, boxY; // even, so the box sits on whole chroma samples in every format
};

Pattern::Pattern(int width, int height) : width_(width), height_(height)
{
    if (width <= 0 || height <= 0 || width % 2 || height % 2)
        throw std::invalid_argument("pattern size must be even and positive");
    boxW_ = std::min(width, std::max(16, width / 8 & ~1));
    boxH_ = std::min(height, std::max(16, height / 6 & ~1));
    stamp_ = hasStamp(width, height);
    cellW_ = width / kStampBits;
    lumaRamp_ = triangle(kLumaPeriod, 40, 200, width);
    cbRamp_ = triangle(kCbPeriod, 64, 192, width / 2);
    crRamp_ = triangle(kCrPeriod, 64, 192, 0);
}

bool Pattern::hasStamp(int width, int height)
{
    return width >= 2 * kStampBits && height >= 4 * kStampRows;
}

Pattern::Frame Pattern::frameAt(uint64_t index) const
{
    Frame f;
    f.stamp = uint32_t(index);
    // Reduce before multiplying so huge indices cannot overflow.
    f.lumaShift = int((index % kLumaPeriod) * kLumaSpeed % kLumaPeriod);
    f.cbShift = int((index % kCbPeriod) * 2 % kCbPeriod);
    f.crShift = int(index % kCrPeriod);
    f.boxX = bounce(index * kBoxSpeedX, width_ - boxW_) & ~1;
    f.boxY = bounce(index * kBoxSpeedY, height_ - boxH_) & ~1;
    return f;
}

const uint8_t* Pattern::lumaRow(const Frame& f, int y, uint8_t* scratch) const
{
    // Scrolling towards the top left: the ramp index grows with x + y + shift.
    const uint8_t* base = lumaRamp_.data() + (y + f.lumaShift) % kLumaPeriod;
    const bool inBox = y >= f.boxY && y < f.boxY + boxH_;
    const bool inStamp = stamp_ && y < kStampRows;
    if (!inBox && !inStamp)
        return base;
    std::memcpy(scratch, base, size_t(width_));
    if (inBox) {
        // An 8x8 checkerboard gives the encoders real edges to move.
        const int ry = (y - f.boxY) / 8;
        for (int x = 0; x < boxW_; ++x)
            scratch[f.boxX + x] = ((x / 8 + ry) & 1) ? 210 : 50;
    }
    if (inStamp) {
        std::memset(scratch, kBlack, size_t(width_));
        for (int b = 0; b < kStampBits; ++b)
            if (f.stamp >> (kStampBits - 1 - b) & 1)
                std::memset(scratch + b * cellW_, kWhite, size_t(cellW_));
    }
    return scratch;
}

const uint8_t* Pattern::cbRow(const Frame& f, int y, uint8_t* scratch) const
{
    const uint8_t* base = cbRamp_.data() + f.cbShift;
    const bool inBox = y >= f.boxY && y < f.boxY + boxH_;
    const bool inStamp = stamp_ && y < kStampRows;
    if (!inBox && !inStamp)
        return base;
    if (inStamp) {
        std::memset(scratch, kNeutral, size_t(width_ / 2));
        return scratch;
    }
    std::memcpy(scratch, base, size_t(width_ / 2));
    std::memset(scratch + f.boxX / 2, kBoxCb, size_t(boxW_ / 2));
    return scratch;
}

const uint8_t* Pattern::crRow(const Frame& f, int y, uint8_t* scratch) const
{
    const bool inStamp = stamp_ && y < kStampRows;
    std::memset(scratch, inStamp ? kNeutral : crRamp_[size_t((y + f.crShift) % kCrPeriod)],
                size_t(width_ / 2));
    if (!inStamp && y >= f.boxY && y < f.boxY + boxH_)
        std::memset(scratch + f.boxX / 2, kBoxCr, size_t(boxW_ / 2));
    return scratch;
}

void Pattern::renderYUYV(uint64_t index, uint8_t* dst, size_t stride) const
{
    const Frame f = frameAt(index);
    std::vector<uint8_t> scratch(size_t(width_) * 2);
    uint8_t* ls = scratch.data();
    uint8_t* cbs = ls + width_;
    uint8_t* crs = cbs + width_ / 2;
    for (int y = 0; y < height_; ++y) {
        const uint8_t* l = lumaRow(f, y, ls);
        const uint8_t* cb = cbRow(f, y, cbs);
        const uint8_t* cr = crRow(f, y, crs);
        uint8_t* d = dst + size_t(y) * stride;
        for (int i = 0; i < width_ / 2; ++i) {
            d[4 * i + 0] = l[2 * i];
            d[4 * i + 1] = cb[i];
            d[4 * i + 2] = l[2 * i + 1];
            d[4 * i + 3] = cr[i];
        }
    }
}

void Pattern::renderPlanar(uint64_t index, uint8_t* yp, size_t yStride,
                           const ChromaRow& chroma) const
{
    const Frame f = frameAt(index);
    std::vector<uint8_t> scratch(size_t(width_) * 2);
    uint8_t* ls = scratch.data();
    uint8_t* cbs = ls + width_;
    uint8_t* crs = cbs + width_ / 2;
    for (int y = 0; y < height_; ++y)
        std::memcpy(yp + size_t(y) * yStride, lumaRow(f, y, ls), size_t(width_));
    // 4:2:0 chroma takes the even row's samples; the box and stamp start on even rows.
    for (int cy = 0; cy < height_ / 2; ++cy)
        chroma(cy, cbRow(f, 2 * cy, cbs), crRow(f, 2 * cy, crs));
}

void Pattern::renderNV12(uint64_t index, uint8_t* yp, size_t yStride, uint8_t* uv,
                         size_t uvStride) const
{
    renderPlanar(index, yp, yStride, [&](int cy, const uint8_t* cb, const uint8_t* cr) {
        uint8_t* d = uv + size_t(cy) * uvStride;
        for (int i = 0; i < width_ / 2; ++i) {
            d[2 * i] = cb[i];
            d[2 * i + 1] = cr[i];
        }
    });
}

void Pattern::renderI420(uint64_t index, uint8_t* yp, size_t yStride, uint8_t* u,
                         size_t uStride, uint8_t* v, size_t vStride) const
{
    renderPlanar(index, yp, yStride, [&](int cy, const uint8_t* cb, const uint8_t* cr) {
        std::memcpy(u + size_t(cy) * uStride, cb, size_t(width_ / 2));
        std::memcpy(v + size_t(cy) * vStride, cr, size_t(width_ / 2));
    });
}

bool Pattern::readStamp(const uint8_t* luma, size_t rowStride, size_t pixelStep, int width,
                        int height, uint32_t* index)
{
    if (!hasStamp(width, height))
        return false;
    const int cellW = width / kStampBits;
    const uint8_t* row = luma + size_t(kStampRows / 2) * rowStride;
    uint32_t v = 0;
    for (int b = 0; b < kStampBits; ++b) {
        const size_t x = size_t(b * cellW + cellW / 2);
        v = v << 1 | (row[x * pixelStep] >= kNeutral ? 1u : 0u);
    }
    *index = v;
    return true;
}

} // namespace simcam
