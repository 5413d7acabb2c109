// The element's Annex B scans on arbitrary bytes: they must stay inside the buffer, and
// the key-frame scan must agree with a plain walk over the start codes.
#include "Bitstream.h"

#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

// Whether the first NAL unit that is not SPS or PPS is an IDR slice, walking start codes the
// slow way. Mirrors the element's rule that a start code needs a header byte behind it.
bool referenceKeyFrame(const unsigned char* p, int n)
{
    auto nalAt = [&](int i, int* header) {
        if (i + 4 >= n || p[i] || p[i + 1])
            return false;
        if (p[i + 2] == 1)
            return *header = p[i + 3] & 0x1f, true;
        if (p[i + 2] == 0 && p[i + 3] == 1)
            return *header = p[i + 4] & 0x1f, true;
        return false;
    };
    int i = 0;
    int type = 0;
    while (nalAt(i, &type)) {
        if (type == 5)
            return true;
        if (type != 7 && type != 8)
            return false;
        int j = i + 4;
        int t = 0;
        while (j + 4 < n && !nalAt(j, &t))
            ++j;
        if (j + 4 >= n)
            return false;
        i = j;
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    // A copy of exactly the input's length, so reading one byte too far is seen by ASan.
    const std::vector<unsigned char> bytes(data + 1, data + size);
    const int n = int(bytes.size());
    const unsigned char* p = bytes.empty() ? nullptr : bytes.data();
    if (n > 0)
        bitstream::isNalFrame(data[0] & 0x1f, p, n);
    if (n > 0 && bitstream::startsWithKeyFrame(p, n) != referenceKeyFrame(p, n))
        std::abort();
    return 0;
}
