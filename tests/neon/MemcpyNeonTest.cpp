// memcpy_neon: exactly n bytes arrive, for every source/destination alignment (the ARM code
// has a VLDM/VSTM path for word-aligned pointers and a VLD1/VST1 path for the rest), and
// nothing past the end is read or written: each span ends at most 7 bytes before a
// PROT_NONE page, and the bytes in between and in front are sentinels.

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "V4LCameraCapturePlugin.h"

namespace {

constexpr uint8_t kSentinel = 0xA5;
constexpr size_t kLead = 96;  // sentinel bytes in front: more than one 64-byte step

uint8_t patternByte(size_t i) { return uint8_t((i * 131 + 17) ^ (i >> 8)); }

// Pages of read/write memory followed by one PROT_NONE page.
class GuardedRegion {
public:
    explicit GuardedRegion(size_t usable)
    {
        const size_t page = size_t(sysconf(_SC_PAGESIZE));
        const size_t rw = (usable + page - 1) / page * page;
        m_size = rw + page;
        void* m = mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (m == MAP_FAILED)
            return;
        m_base = static_cast<uint8_t*>(m);
        m_end = m_base + rw;
        m_ok = mprotect(m_end, page, PROT_NONE) == 0;
    }
    ~GuardedRegion()
    {
        if (m_base)
            munmap(m_base, m_size);
    }
    GuardedRegion(const GuardedRegion&) = delete;
    GuardedRegion& operator=(const GuardedRegion&) = delete;

    bool ok() const { return m_ok; }
    uint8_t* base() const { return m_base; }
    uint8_t* end() const { return m_end; }  // first byte of the PROT_NONE page

    // Start of an n-byte span with address % 8 == align, ending as close to end() as that
    // alignment allows (0..7 bytes before it).
    uint8_t* spanAt(size_t n, unsigned align) const
    {
        const uintptr_t last = reinterpret_cast<uintptr_t>(m_end) - n;
        return reinterpret_cast<uint8_t*>(last - ((last - align) & 7));
    }

private:
    uint8_t* m_base = nullptr;
    uint8_t* m_end = nullptr;
    size_t m_size = 0;
    bool m_ok = false;
};

bool allAre(const uint8_t* from, const uint8_t* to, uint8_t value)
{
    return std::all_of(from, to, [value](uint8_t b) { return b == value; });
}

// Sizes around the 64-byte step, a large odd size spanning pages, and negative counts (the
// element passes int(length)), which must copy nothing.
const int kSizes[] = {0, 1, 63, 64, 65, 127, 128, 100003, -1, -64};

class MemcpyNeon : public testing::TestWithParam<int> {};

TEST_P(MemcpyNeon, CopiesExactlyNBytesAtEveryAlignment)
{
    const int n = GetParam();
    const size_t copied = n > 0 ? size_t(n) : 0;
    const size_t usable = copied + 7 + kLead;
    GuardedRegion src(usable), dst(usable);
    ASSERT_TRUE(src.ok() && dst.ok());
    const size_t srcBytes = size_t(src.end() - src.base());
    for (size_t i = 0; i < srcBytes; ++i)
        src.base()[i] = patternByte(i);
    const std::vector<uint8_t> srcBefore(src.base(), src.end());

    for (unsigned sa = 0; sa < 8; ++sa) {
        for (unsigned da = 0; da < 8; ++da) {
            SCOPED_TRACE(testing::Message() << "n=" << n << " src%8=" << sa << " dst%8=" << da);
            uint8_t* s = src.spanAt(copied, sa);
            uint8_t* d = dst.spanAt(copied, da);
            std::memset(dst.base(), kSentinel, size_t(dst.end() - dst.base()));

            memcpy_neon(d, s, n);

            ASSERT_TRUE(std::equal(d, d + copied, s)) << "copied bytes differ";
            ASSERT_TRUE(allAre(dst.base(), d, kSentinel)) << "wrote in front of dst";
            ASSERT_TRUE(allAre(d + copied, dst.end(), kSentinel)) << "wrote past dst + n";
            ASSERT_TRUE(std::equal(srcBefore.begin(), srcBefore.end(), src.base())) << "changed src";
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, MemcpyNeon, testing::ValuesIn(kSizes),
                         [](const testing::TestParamInfo<int>& info) {
                             return (info.param < 0 ? "minus" : "n") + std::to_string(std::abs(info.param));
                         });

#if defined(__arm__)
// Finds a 32-bit instruction in the first `window` bytes of code at `fn`: Thumb-2 code holds
// its two halfwords in order, ARM code one little-endian word. The low nibble of the first
// halfword (the base register the compiler picked) is ignored.
bool codeContains(const void* fn, uint16_t hw1, uint16_t hw2, size_t window = 512)
{
    const uintptr_t addr = reinterpret_cast<uintptr_t>(fn);
    const bool thumb = addr & 1;
    const auto* code = reinterpret_cast<const uint8_t*>(addr & ~uintptr_t(1));
    for (size_t i = 0; i + 4 <= window; i += thumb ? 2 : 4) {
        uint16_t first, second;
        if (thumb) {
            first = uint16_t(code[i] | code[i + 1] << 8);
            second = uint16_t(code[i + 2] | code[i + 3] << 8);
        } else {
            second = uint16_t(code[i] | code[i + 1] << 8);
            first = uint16_t(code[i + 2] | code[i + 3] << 8);
        }
        if ((first & 0xFFF0) == hw1 && second == hw2)
            return true;
    }
    return false;
}
#endif

// A toolchain that lost -mfpu=neon still builds: the element then silently falls back to
// memcpy. Look for the NEON transfers in the element's compiled code.
TEST(MemcpyNeonBuild, ArmBuildCopiesThroughNeonRegisters)
{
#if defined(__arm__)
#if !defined(__ARM_NEON)
    ADD_FAILURE() << "this armhf build is compiled without NEON (-mfpu=neon missing)";
#endif
    const void* fn = reinterpret_cast<const void*>(&memcpy_neon);
    EXPECT_TRUE(codeContains(fn, 0xECB0, 0x0B10)) << "no vldmia rN!, {d0-d7}";
    EXPECT_TRUE(codeContains(fn, 0xECA0, 0x0B10)) << "no vstmia rN!, {d0-d7}";
    EXPECT_TRUE(codeContains(fn, 0xF920, 0x020D) || codeContains(fn, 0xF420, 0x020D))
        << "no vld1.8 {d0-d3}, [rN]! for unaligned pointers";
#else
    GTEST_SKIP() << "memcpy_neon is plain memcpy outside 32-bit ARM builds";
#endif
}

} // namespace
