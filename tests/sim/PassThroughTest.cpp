// What the model does not simulate reaches the C library unchanged; what it does simulate
// lives and dies with the model.
#include "SimTest.h"

#include <dirent.h>
#include <algorithm>
#include <fstream>
#include <sstream>

using namespace simcam;
using namespace simtest;

namespace {

// Through opendir, which the simulator answers for /dev.
bool devListed(const char* name)
{
    bool found = false;
    if (DIR* d = opendir("/dev")) {
        while (dirent* e = readdir(d))
            found |= std::string(e->d_name) == name;
        closedir(d);
    }
    return found;
}

class PassThrough : public SimTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(PassThrough, RealPathsAndDescriptorsAreUntouched)
{
    std::unique_ptr<ScopedModel> model;
    if (*GetParam())
        model = std::make_unique<ScopedModel>(GetParam());

    // read() through open() against the C++ library's own file access.
    UniqueFd hosts(::open("/etc/hostname", O_RDONLY));
    std::string viaOpen(256, 0);
    viaOpen.resize(size_t(std::max<ssize_t>(0, ::read(hosts.get(), viaOpen.data(), viaOpen.size()))));
    std::stringstream viaStream;
    viaStream << std::ifstream("/etc/hostname").rdbuf();
    EXPECT_EQ(viaOpen, viaStream.str());

    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    UniqueFd readEnd(pipeFds[0]), writeEnd(pipeFds[1]);
    ASSERT_EQ(::write(writeEnd.get(), "abc", 3), 3);
    int pending = 0;
    EXPECT_EQ(xioctl(readEnd.get(), FIONREAD, &pending), 0);
    EXPECT_EQ(pending, 3);

    // The model's /dev listing replaces the real one only while it is active.
    EXPECT_EQ(devListed("null"), !model);
    EXPECT_EQ(stats().openDescriptors, 0);
    EXPECT_TRUE(stats().opens.empty()) << "real paths are not recorded";
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutModel, PassThrough, ::testing::Values("", "h264,others=zero"),
                         [](const auto& info) { return *info.param ? "Model" : "NoModel"; });

TEST_F(SimTest, HostCamerasAndTheShadowTreeGoWithTheModel)
{
    std::string root;
    {
        ScopedModel model("h264");
        root = shadowRoot();
        ASSERT_EQ(access(root.c_str(), F_OK), 0);
        errno = 0;
        EXPECT_LT(UniqueFd(::open("/dev/video7", O_RDWR)).get(), 0) << "host nodes are hidden";
        EXPECT_EQ(errno, ENOENT);
    }
    EXPECT_FALSE(active());
    EXPECT_TRUE(shadowRoot().empty());
    EXPECT_NE(access(root.c_str(), F_OK), 0);
}

TEST_F(SimTest, ReconfiguringKillsOldDescriptorsButARefusedModelChangesNothing)
{
    configure("mjpeg,size=320x240,fps=100");
    Stream s(kFourccMJPG, 320, 240);
    ASSERT_EQ(s.error, 0) << s.failedAt;

    Model bad = preset("h264");
    bad.cameras[0].nodes[1].name = "video0";
    EXPECT_THROW(configure(bad), std::invalid_argument);
    bad = preset("h264");
    bad.cameras[0].nodes[0].formats[0].sizes.clear();
    EXPECT_THROW(configure(bad), std::invalid_argument);
    v4l2_buffer b{};
    ASSERT_EQ(s.dequeue(b), 0);

    configure("h264");
    EXPECT_EQ(stats().clockThreads, 0);
    EXPECT_EQ(stats().mappings, 0);
    EXPECT_TRUE(readable(s.fd.get(), 0)) << "a waiting select wakes";
    EXPECT_EQ(s.dequeue(b), ENODEV);
    EXPECT_EQ(s.requeue(b), ENODEV);
    EXPECT_GE(UniqueFd(::open("/dev/video0", O_RDWR)).get(), 0);
}

} // namespace
