#pragma once
// Helpers shared by the content tests: Annex B scanning, fetching frames, and running
// the ffmpeg tools.

#include "content/ContentSource.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace simcam::test {

inline std::string fourccName(uint32_t f)
{
    return std::string{char(f), char(f >> 8), char(f >> 16), char(f >> 24)};
}

inline std::vector<uint8_t> frame(const ContentSource& s, uint64_t index)
{
    std::vector<uint8_t> buf(s.frameSize(index));
    buf.resize(s.render(index, buf.data(), buf.size()));
    return buf;
}

struct Nal {
    size_t start;   // offset of the start code
    size_t payload; // offset of the NAL header
    size_t end;     // one past the last byte
};

// Splits an Annex B buffer at its start codes (3 or 4 bytes).
inline std::vector<Nal> splitAnnexB(const std::vector<uint8_t>& b)
{
    std::vector<Nal> out;
    const size_t n = b.size();
    for (size_t i = 0; i + 3 <= n; ++i) {
        if (b[i] != 0 || b[i + 1] != 0)
            continue;
        size_t sc = 0;
        if (b[i + 2] == 1)
            sc = 3;
        else if (i + 4 <= n && b[i + 2] == 0 && b[i + 3] == 1)
            sc = 4;
        if (!sc)
            continue;
        if (!out.empty())
            out.back().end = i;
        out.push_back({i, i + sc, n});
        i += sc - 1;
    }
    return out;
}

inline int h264Type(const std::vector<uint8_t>& b, const Nal& n) { return b[n.payload] & 0x1f; }
inline int hevcType(const std::vector<uint8_t>& b, const Nal& n) { return b[n.payload] >> 1 & 0x3f; }

inline std::vector<int> nalTypes(const std::vector<uint8_t>& au, bool hevc)
{
    std::vector<int> t;
    for (const Nal& n : splitAnnexB(au))
        t.push_back(hevc ? hevcType(au, n) : h264Type(au, n));
    return t;
}

inline bool haveTool(const char* name)
{
    const std::string cmd = std::string("command -v ") + name + " >/dev/null 2>&1";
    return std::system(cmd.c_str()) == 0;
}

// Runs a shell command; returns its stdout (and stderr when merged by the caller).
inline std::string run(const std::string& cmd, int* status = nullptr)
{
    std::string out;
    FILE* p = popen(cmd.c_str(), "r");
    if (!p)
        return out;
    char buf[4096];
    size_t got;
    while ((got = fread(buf, 1, sizeof buf, p)) > 0)
        out.append(buf, got);
    const int st = pclose(p);
    if (status)
        *status = st;
    return out;
}

} // namespace simcam::test
