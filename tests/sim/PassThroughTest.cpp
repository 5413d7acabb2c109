// Everything the model does not simulate reaches the C library unchanged, with or without
// a model.
#include "SimTest.h"

#include <dirent.h>
#include <fstream>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace simcam;
using namespace simtest;

namespace {

std::string readWithOpen(const char* path)
{
    Fd fd(::open(path, O_RDONLY));
    EXPECT_TRUE(fd.valid()) << path;
    std::string text;
    char buf[256];
    for (ssize_t n; fd.valid() && (n = ::read(fd.get(), buf, sizeof buf)) > 0;)
        text.append(buf, size_t(n));
    return text;
}

std::string readWithStream(const char* path)
{
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

bool devListingHas(const char* name)
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

    EXPECT_EQ(readWithOpen("/etc/hostname"), readWithStream("/etc/hostname"));

    Fd null(::open("/dev/null", O_WRONLY));
    ASSERT_TRUE(null.valid());
    struct stat st {};
    ASSERT_EQ(fstat(null.get(), &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_EQ(::write(null.get(), "x", 1), 1);
    ASSERT_EQ(stat("/dev/null", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));

    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    Fd readEnd(pipeFds[0]), writeEnd(pipeFds[1]);
    ASSERT_EQ(::write(writeEnd.get(), "abc", 3), 3);
    int pending = 0;
    ASSERT_EQ(ioctl(readEnd.get(), FIONREAD, &pending), 0);
    EXPECT_EQ(pending, 3);

    DIR* tmp = opendir("/tmp");
    ASSERT_NE(tmp, nullptr);
    closedir(tmp);
    EXPECT_EQ(stats().openDescriptors, 0);
    EXPECT_TRUE(stats().opens.empty()) << "real paths are not recorded";
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutModel, PassThrough, ::testing::Values("", "multi"),
                         [](const auto& info) { return *info.param ? "Model" : "NoModel"; });

TEST_F(SimTest, WithoutModelDevIsTheRealOne)
{
    EXPECT_FALSE(active());
    EXPECT_TRUE(devListingHas("null"));
    {
        ScopedModel model("h264,others=zero");
        EXPECT_TRUE(active());
        EXPECT_FALSE(devListingHas("null"));
        EXPECT_TRUE(devListingHas("video0"));
    }
    EXPECT_FALSE(active());
    EXPECT_TRUE(devListingHas("null"));
    EXPECT_TRUE(shadowRoot().empty());
}

TEST_F(SimTest, ShadowTreeGoesWithItsModel)
{
    std::string root;
    {
        ScopedModel model("h264");
        root = shadowRoot();
        struct stat st {};
        ASSERT_EQ(stat(root.c_str(), &st), 0);
    }
    struct stat st {};
    EXPECT_EQ(stat(root.c_str(), &st), -1);
}

TEST_F(SimTest, ReconfiguringKillsOldDescriptors)
{
    configure("mjpeg,size=320x240,fps=100");
    Stream s("/dev/video0", kFourccMJPG, 320, 240);
    ASSERT_EQ(s.error, 0) << s.failedAt;
    configure("h264");
    EXPECT_EQ(stats().clockThreads, 0);
    EXPECT_EQ(stats().mappings, 0);
    EXPECT_TRUE(waitReadable(s.fd.get(), 0)) << "a waiting select wakes";
    v4l2_buffer b{};
    EXPECT_EQ(s.dequeue(b), ENODEV);
    Fd fresh = openNode("/dev/video0");
    EXPECT_TRUE(fresh.valid());
}

TEST_F(SimTest, BadModelsAreRejectedWhole)
{
    Model m = preset("h264");
    m.cameras[0].nodes[1].name = "video0";
    EXPECT_THROW(configure(m), std::invalid_argument);
    m = preset("h264");
    m.cameras[0].nodes[0].formats[0].sizes.clear();
    EXPECT_THROW(configure(m), std::invalid_argument);
    EXPECT_THROW(configure("nope=1"), std::invalid_argument);
    EXPECT_FALSE(active());
    EXPECT_THROW(setFaults(Faults{}), std::logic_error);
}

} // namespace
