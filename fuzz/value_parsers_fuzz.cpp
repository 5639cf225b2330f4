// The value parsers on arbitrary text and scale: every outcome is bytes of the type's width or a
// std::invalid_argument, and the limit check never throws. Layout: parser byte, scale (4 bytes,
// a float's bits), limits (two bytes), text.

#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "fuzz_support.h"
#include "value_parsers.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const char* const kTypes[] = {"int8",   "int16",  "int32",  "int64",   "uint8",
                                         "uint16", "uint32", "uint64", "float32", "double",
                                         "IP",     "MAC",    "raw"};
    static const size_t kWidths[] = {1, 2, 4, 8, 1, 2, 4, 8, 4, 8, 4, 6, 0};
    fuzzing::Input input(data, size);
    const size_t which = input.Byte() % 13;
    const uint32_t bits = input.Word();
    float scale = 0;
    std::memcpy(&scale, &bits, sizeof scale);
    const int32_t low = static_cast<int8_t>(input.Byte());
    const int32_t high = static_cast<int8_t>(input.Byte());
    const std::string text = input.Rest();

    checkDecimalWithinLimits(text, scale, low, high, 2147483647.0);
    if (which == 12) return 0;  // the raw parser only prints
    auto parser = parserForVarType(kTypes[which]);
    try {
        const auto bytes = parser->parse(text, scale);
        if (bytes.size() != kWidths[which]) std::abort();
    } catch (const std::invalid_argument&) {
    }
    return 0;
}
