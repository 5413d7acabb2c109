// LD_PRELOAD use: an unmodified V4L2 client (simcam_probe) meets the camera SIMCAM_MODEL
// describes.
#include <array>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <vector>

namespace {

struct ProbeCase {
    const char* name;
    const char* model;
    const char* args;
    int status;
    std::vector<std::string> expected; // in the output
};

class Preload : public ::testing::TestWithParam<ProbeCase> {};

TEST_P(Preload, ProbeMeetsTheModel)
{
    const ProbeCase& c = GetParam();
    // A sanitizer runtime in the probe would insist on being first in the library list.
    const std::string command = std::string("env ASAN_OPTIONS=verify_asan_link_order=0 SIMCAM_MODEL='") +
                                c.model + "' LD_PRELOAD='" SIMCAM_LIBRARY "' '" SIMCAM_PROBE "' " +
                                c.args + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::string output;
    std::array<char, 4096> buf;
    for (size_t n; (n = fread(buf.data(), 1, buf.size(), pipe)) > 0;)
        output.append(buf.data(), n);
    const int status = pclose(pipe);
    ASSERT_TRUE(WIFEXITED(status)) << output;
    EXPECT_EQ(WEXITSTATUS(status), c.status) << output;
    for (const std::string& text : c.expected)
        EXPECT_NE(output.find(text), std::string::npos) << text << "\n" << output;
}

INSTANTIATE_TEST_SUITE_P(
    Runs, Preload,
    ::testing::Values(
        ProbeCase{"Lists", "multi,nodes=video0/video1:meta/Video4", "", 0,
                  {"/dev/video0: uvcvideo", "sizes 160x120..1920x1080", "size 640x480: 1/30 1/15",
                   "/dev/Video4:"}},
        ProbeCase{"Captures", "mjpeg,size=320x240,fps=100", "--capture 3", 0,
                  {"frame 2: seq 2", "head ff d8"}},
        ProbeCase{"FaultsApply", "mjpeg,open=EBUSY", "--capture 1", 1, {"Device or resource busy"}},
        ProbeCase{"BadModelStops", "mjpeg,size=huge", "", 2, {"SIMCAM_MODEL"}}),
    [](const auto& info) { return std::string(info.param.name); });

} // namespace
