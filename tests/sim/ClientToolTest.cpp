// Ordinary V4L2 clients against the preloaded simulated camera: what they record must
// decode, and the V4L2 compliance suite must find nothing wrong. A tool that is not
// installed skips its case.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <string>
#include <sys/wait.h>

namespace fs = std::filesystem;

namespace {

struct Outcome {
    int status = -1;
    std::string output;
};

// Runs a shell command line and gathers its standard output and error.
Outcome run(const std::string& command)
{
    Outcome r;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (!pipe)
        return r;
    char chunk[4096];
    size_t n = 0;
    while ((n = fread(chunk, 1, sizeof chunk, pipe)) > 0)
        r.output.append(chunk, n);
    const int status = pclose(pipe);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

bool installed(const std::string& tool)
{
    return run("command -v " + tool).status == 0;
}

// ELF class and machine of a program: a camera library built for another architecture
// (an ARM build run under an emulator) cannot be preloaded into it.
std::string elfKind(const std::string& path)
{
    std::string header(20, '\0');
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f)
        return {};
    const size_t n = std::fread(header.data(), 1, header.size(), f);
    std::fclose(f);
    return n == header.size() ? header.substr(4, 1) + header.substr(18, 2) : std::string();
}

bool sameArchitecture(const std::string& tool)
{
    std::string path = run("command -v " + tool).output;
    path.erase(path.find_last_not_of("\n") + 1);
    return elfKind(path) == elfKind("/proc/self/exe");
}

#ifdef SIMCAM_RUNTIME
// A sanitizer build: its runtime goes first. What the tool itself leaks is not the camera's.
constexpr const char* kPreload = "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0 "
                                 "LD_PRELOAD='" SIMCAM_RUNTIME " " SIMCAM_LIBRARY "'";
#else
constexpr const char* kPreload = "LD_PRELOAD='" SIMCAM_LIBRARY "'";
#endif

// The camera for one command: the model and the preload, nothing else of this process.
std::string preloaded(const std::string& model, const std::string& command)
{
    return "SIMCAM_MODEL='" + model + "' " + kPreload + " timeout 120 " + command;
}

class TempDir {
public:
    TempDir()
    {
        std::string pattern = (fs::temp_directory_path() / "simcam-client-XXXXXX").string();
        path_ = mkdtemp(pattern.data()) ? pattern : "";
    }
    ~TempDir()
    {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

struct Recorder {
    const char* name;
    const char* tool;
    const char* command; // {out} is the file it writes
    const char* file;
    int frames;
};
std::ostream& operator<<(std::ostream& os, const Recorder& r) { return os << r.name; }

class ClientRecords : public ::testing::TestWithParam<Recorder> {};

TEST_P(ClientRecords, WhatItWritesDecodes)
{
    const Recorder& r = GetParam();
    if (!installed(r.tool))
        GTEST_SKIP() << r.tool << " is not installed";
    if (!sameArchitecture(r.tool))
        GTEST_SKIP() << r.tool << " is built for another architecture than the camera library";
    if (!installed("ffprobe"))
        GTEST_SKIP() << "ffprobe is not installed";
    TempDir dir;
    ASSERT_FALSE(dir.path().empty());
    const std::string out = dir.path() + "/" + r.file;
    std::string command = r.command;
    command.replace(command.find("{out}"), 5, out);

    const Outcome recording = run(preloaded("h264,size=640x480", command));
    ASSERT_EQ(recording.status, 0) << recording.output;

    const Outcome probe = run("ffprobe -v error -count_frames -select_streams v:0 -show_entries "
                          "stream=codec_name,nb_read_frames -of csv=p=0 '" + out + "'");
    ASSERT_EQ(probe.status, 0) << probe.output;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(probe.output, m, std::regex("h264,(\\d+)"))) << probe.output;
    EXPECT_NEAR(std::stoi(m[1]), r.frames, 2) << probe.output;
}

INSTANTIATE_TEST_SUITE_P(
    Tools, ClientRecords,
    ::testing::Values(
        Recorder{"V4l2CtlStreamMmap", "v4l2-ctl",
                 "v4l2-ctl -d /dev/video0 --stream-mmap --stream-count 30 --stream-to {out}",
                 "out.h264", 30},
        Recorder{"FfmpegCopy", "ffmpeg",
                 "ffmpeg -nostdin -loglevel error -f v4l2 -input_format h264 -i /dev/video0 "
                 "-c copy -frames:v 60 {out}",
                 "out.mkv", 60},
        Recorder{"GstLaunchV4l2src", "gst-launch-1.0",
                 "gst-launch-1.0 -q v4l2src device=/dev/video0 num-buffers=60 ! filesink location={out}",
                 "out.h264", 60}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Compliance, V4l2ComplianceFindsNoFailures)
{
    if (!installed("v4l2-compliance"))
        GTEST_SKIP() << "v4l2-compliance is not installed";
    const Outcome r = run(preloaded("h264,size=640x480", "v4l2-compliance -d /dev/video0 -s"));
    std::smatch m;
    ASSERT_TRUE(std::regex_search(r.output, m, std::regex("Total for .*Failed: (\\d+)"))) << r.output;
    std::string failures; // the suite's own account of each failure, not its whole log
    const std::regex failLine("[^\n]*fail[^\n]*");
    for (auto it = std::sregex_iterator(r.output.begin(), r.output.end(), failLine);
         it != std::sregex_iterator(); ++it)
        failures += it->str() + "\n";
    EXPECT_EQ(m[1].str(), "0") << failures << m[0];
}

} // namespace
