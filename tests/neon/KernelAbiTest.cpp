// The kernel interfaces the element (and the simulated driver) compile against, as the
// kernel of each target dispatches them: the ioctl number carries the structure size, so a
// layout that differs from the kernel's fails every call on the board. Values are the
// kernel's own for 32-bit ARM (ILP32, 32-bit time_t) and for 64-bit hosts (LP64).

#include <gtest/gtest.h>

#include <linux/uvcvideo.h>
#include <linux/videodev2.h>
#include <sys/time.h>

#include <cstddef>

namespace {

struct AbiCase {
    const char* what;
    unsigned long actual;
    unsigned long ilp32;
    unsigned long lp64;
};

void PrintTo(const AbiCase& c, std::ostream* os) { *os << c.what; }

const AbiCase kCases[] = {
    {"sizeof_timeval", sizeof(timeval), 8, 16},
    {"sizeof_v4l2_buffer", sizeof(v4l2_buffer), 68, 88},
    {"v4l2_buffer_m", offsetof(v4l2_buffer, m), 52, 64},
    {"VIDIOC_QBUF", VIDIOC_QBUF, 0xC044560F, 0xC058560F},
    {"VIDIOC_DQBUF", VIDIOC_DQBUF, 0xC0445611, 0xC0585611},
    {"VIDIOC_REQBUFS", VIDIOC_REQBUFS, 0xC0145608, 0xC0145608},
    {"sizeof_uvc_xu_control_query", sizeof(uvc_xu_control_query), 12, 16},
    {"uvc_xu_control_query_data", offsetof(uvc_xu_control_query, data), 8, 8},
    {"UVCIOC_CTRL_QUERY", UVCIOC_CTRL_QUERY, 0xC00C7521, 0xC0107521},
};

class KernelAbi : public testing::TestWithParam<AbiCase> {};

TEST_P(KernelAbi, MatchesTheTargetKernel)
{
    const AbiCase& c = GetParam();
    const bool ilp32 = sizeof(long) == 4;
    EXPECT_EQ(c.actual, ilp32 ? c.ilp32 : c.lp64) << std::hex << "0x" << c.actual;
}

INSTANTIATE_TEST_SUITE_P(Layouts, KernelAbi, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<AbiCase>& info) { return std::string(info.param.what); });

} // namespace
