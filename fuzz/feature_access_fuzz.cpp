// The feature and access configuration parsers on arbitrary CSV. The first byte picks the model
// or profile name the lookup asks for, from names that occur in the shipped files.

#include "fuzz_support.h"
#include "sdk/auth_config.h"
#include "sdk/feature_config_parser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzing::SilenceLogger();
    static const char* const kNames[] = {"Egret", "Plover", "Tern", "Wren", "Heron-VRC", "", "x"};
    fuzzing::Input input(data, size);
    const std::string name = kNames[input.Byte() % (sizeof kNames / sizeof kNames[0])];
    const std::string& path = fuzzing::WriteScratchFile(input.Data(), input.Left(), ".csv");
    FeatureConfigParser::Load(path, name);
    AuthConfigParser::Load(path, name);
    return 0;
}
