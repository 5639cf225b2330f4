// The reply decoder on arbitrary bytes: a variable of any type, position and length cut out of a
// reply of any size. Layout: type byte, start, length (one byte each), scale (4 bytes), reply.

#include <unistd.h>

#include <QCoreApplication>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "fuzz_support.h"
#include "lidar_utilities_manager.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const char* const kTypes[] = {
        "int8",   "int16",   "int32",  "int64", "uint8", "uint16", "uint32",
        "uint64", "float32", "double", "IP",    "MAC",   "HWVER",  "SWVER_YMD",
        "string", "DT",      "SN",     "PN",    "BYTES", "raw",    "bogus"};
    static int argc = 1;
    static char name[] = "fuzz";
    static char* argv[] = {name, nullptr};
    static QCoreApplication app(argc, argv);
    static auto manager = [] {
        fuzzing::SilenceLogger();
        // Unsupported types get a developer line, once per input: not worth reading.
        LidarUtilitiesManager::setDeveloperLineSink([](const std::string&) {});
        // The manager reads ./Config: a catalogue must be loaded for replies to be decoded.
        if (::chdir(LIDAR_SOURCE_DIR) != 0) std::abort();
        auto loaded = std::make_unique<LidarUtilitiesManager>(0, "");
        loaded->InitConfigFileParser("Egret");
        if (loaded->getCurrentParser() == nullptr) std::abort();
        return loaded;
    }();

    fuzzing::Input input(data, size);
    VarInfo var;
    var.var_name = "fuzzed";
    var.var_type = kTypes[input.Byte() % (sizeof kTypes / sizeof kTypes[0])];
    var.get_cmd = "0x30";
    var.get_start_pos = input.Byte();
    var.offset = input.Byte();
    const uint32_t bits = input.Word();
    std::memcpy(&var.scale, &bits, sizeof var.scale);
    const std::string reply = input.Rest();
    std::vector<uint8_t> output(reply.begin(), reply.end());
    std::vector<uint8_t> value;
    try {
        manager->updateSingleVarFromOutput(var, 0x30, output, value, true);
    } catch (const std::runtime_error&) {
        // An empty reply or a zero length: refused by design, the reader catches it.
    }
    return 0;
}
