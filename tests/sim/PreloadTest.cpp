// LD_PRELOAD use: an unmodified V4L2 client (simcam_probe) meets the camera SIMCAM_MODEL
// describes, with no v4l-utils and no kernel driver.
#include <array>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>

namespace {

struct ProbeRun {
    int status = -1;
    std::string output;
};

ProbeRun runProbe(const std::string& model, const std::string& args)
{
    // A sanitizer runtime in the probe would insist on being first in the library list.
    const std::string command = "env ASAN_OPTIONS=verify_asan_link_order=0 SIMCAM_MODEL='" + model +
                                "' LD_PRELOAD='" SIMCAM_LIBRARY "' '" SIMCAM_PROBE "' " + args +
                                " 2>&1";
    ProbeRun run;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe)
        return run;
    std::array<char, 4096> buf;
    for (size_t n; (n = fread(buf.data(), 1, buf.size(), pipe)) > 0;)
        run.output.append(buf.data(), n);
    const int status = pclose(pipe);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

TEST(Preload, ProbeListsTheModelsNodesAndFormats)
{
    const ProbeRun run = runProbe("multi,nodes=video0/video1:meta/Video4", "");
    ASSERT_EQ(run.status, 0) << run.output;
    for (const char* expected : {"/dev/video0: uvcvideo", "format RGB3", "sizes 160x120..1920x1080",
                                 "format HEVC", "size 640x480: 1/30 1/15", "/dev/Video4:"})
        EXPECT_NE(run.output.find(expected), std::string::npos) << expected << "\n" << run.output;
    const size_t at = run.output.find("/dev/video1:");
    ASSERT_NE(at, std::string::npos) << run.output;
    const std::string line = run.output.substr(at, run.output.find('\n', at) - at);
    EXPECT_EQ(line.find(" capture"), std::string::npos) << "metadata node: " << line;
}

TEST(Preload, ProbeCapturesFrames)
{
    const ProbeRun run = runProbe("mjpeg,size=320x240,fps=100", "--capture 3");
    ASSERT_EQ(run.status, 0) << run.output;
    EXPECT_NE(run.output.find("frame 2: seq 2"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("head ff d8"), std::string::npos) << run.output;
}

TEST(Preload, FaultsApplyToTheClient)
{
    const ProbeRun run = runProbe("mjpeg,open=EBUSY", "--capture 1");
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("Device or resource busy"), std::string::npos) << run.output;
}

TEST(Preload, BadModelStopsTheProcess)
{
    const ProbeRun run = runProbe("mjpeg,size=huge", "");
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.output.find("SIMCAM_MODEL"), std::string::npos) << run.output;
}

} // namespace
