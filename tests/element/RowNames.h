#pragma once
// Names for the rows of parameterised tests, so that listings read as the case each runs.

#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <string>

namespace testsupport {

// Letters and digits kept, anything else an underscore: all a test name may hold.
inline std::string asTestName(std::string text)
{
    for (char& c : text)
        if (!std::isalnum(static_cast<unsigned char>(c)))
            c = '_';
    return text;
}

// A FourCC as its four letters ("YUYV"), or in hex when it is not printable.
inline std::string fourccName(uint32_t fourcc)
{
    std::string text;
    for (int shift = 0; shift < 32; shift += 8) {
        const char c = char((fourcc >> shift) & 0xff);
        if (!std::isalnum(static_cast<unsigned char>(c)))
            return "0x" + [&] {
                char hex[9];
                std::snprintf(hex, sizeof hex, "%08x", fourcc);
                return std::string(hex);
            }();
        text += c;
    }
    return text;
}

inline std::string signedName(int value) { return value < 0 ? "Minus" + std::to_string(-value) : std::to_string(value); }

// For rows that carry their own `name`.
struct ByName {
    template <typename Row>
    std::string operator()(const testing::TestParamInfo<Row>& info) const
    {
        return asTestName(info.param.name);
    }
};

// For rows that are pairs whose first member says what the row is.
struct ByFirst {
    template <typename Row>
    std::string operator()(const testing::TestParamInfo<Row>& info) const
    {
        return asTestName(info.param.first);
    }
};

} // namespace testsupport
