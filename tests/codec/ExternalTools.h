#pragma once
// The FFmpeg command-line tools, as an independent decoder of what the encoder wrote.

#include <QString>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace codectest {

bool haveTool(const char* name);

// Writes `bytes` to `path`; false on failure.
bool writeFile(const QString& path, const std::vector<uint8_t>& bytes);

struct ProbeResult {
    int frames = 0;
    int width = 0;
    int height = 0;
    std::string profile;
};

// ffprobe's count of decoded pictures, size and profile of a raw H.264 file; nothing
// when ffprobe fails or prints something else.
std::optional<ProbeResult> probeH264(const QString& file);

// Every decoded picture of a raw H.264 file as I420, back to back; nothing on failure.
std::optional<std::vector<uint8_t>> decodeH264ToI420(const QString& file);

} // namespace codectest
