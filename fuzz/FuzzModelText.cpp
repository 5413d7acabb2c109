// The simulated camera's model text: any input either parses into a model or is refused
// with std::invalid_argument; nothing else may escape, nor may it read out of bounds.
#include "simcam/Model.h"

#include <cstdint>
#include <stdexcept>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // Settings like cameras=8 multiply the model; long inputs only slow the search down.
    if (size > 4096)
        return 0;
    try {
        simcam::parseModel(std::string_view(reinterpret_cast<const char*>(data), size));
    } catch (const std::invalid_argument&) {
    }
    return 0;
}
