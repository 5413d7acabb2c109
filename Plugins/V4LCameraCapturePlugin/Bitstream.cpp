#include "Bitstream.h"

namespace bitstream {

bool isNalFrame(unsigned char type, const void* data, int length)
{
    if (length <= 4)
        return false;
    const auto* p = static_cast<const unsigned char*>(data);
    if (p[0] != 0 || p[1] != 0)
        return false;
    unsigned char header;
    if (p[2] == 1)
        header = p[3];
    else if (p[2] == 0 && p[3] == 1)
        header = p[4];
    else
        return false;
    return (header & 0x1f) == type;
}

bool startsWithKeyFrame(const unsigned char* p, int n)
{
    for (;;) {
        if (isNalFrame(5, p, n))
            return true;
        if (!isNalFrame(7, p, n) && !isNalFrame(8, p, n))
            return false;
        const unsigned char* q = p + 4;
        int m = n - 4;
        bool found = false;
        for (; m >= 5; ++q, --m) {
            if (q[0] == 0 && q[1] == 0 && (q[2] == 1 || (q[2] == 0 && q[3] == 1))) {
                found = true;
                break;
            }
        }
        if (!found)
            return false;
        p = q;
        n = m;
    }
}

} // namespace bitstream
