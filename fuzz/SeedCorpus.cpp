// Writes seed inputs for the Annex B target from the content generator's clips: the first
// access units of small H.264 and HEVC clips, each behind a NAL-type byte.
// Usage: fuzz_seed_corpus DIR
#include "content/ContentSource.h"

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
        return 2;
    }
    simcam::ContentOptions options;
    options.clipFrames = 4;
    options.keyInterval = 2;
    int written = 0;
    for (uint32_t fourcc : {simcam::kFourccH264, simcam::kFourccHEVC}) {
        const auto clip = simcam::ContentSource::get(fourcc, 64, 48, options);
        if (!clip)
            return 1;
        for (uint64_t i = 0; i < 3; ++i) {
            std::vector<uint8_t> frame(clip->frameSize(i) + 1);
            frame[0] = i == 0 ? 5 : 1; // the NAL type the harness asks about
            clip->render(i, frame.data() + 1, frame.size() - 1);
            std::ofstream(std::string(argv[1]) + "/clip-" + std::to_string(written++),
                          std::ios::binary)
                .write(reinterpret_cast<const char*>(frame.data()), std::streamsize(frame.size()));
        }
    }
    return 0;
}
