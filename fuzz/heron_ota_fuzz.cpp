// The Heron OTA package parser and the component extraction on arbitrary bytes; the input is the
// package. Whatever a header says, an accepted package has its components inside the file and
// apart, and an extraction gives either nothing or exactly the bytes the header places (without
// an FPGA image's leading block). The last 8 bytes of the input also serve as one more
// component's offset and size, so that extraction meets headers the parser would refuse. And a
// package built by the rules from the same bytes is accepted, its components where they were put.

#include <QCoreApplication>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

#include "fuzz_support.h"
#include "heron_ota_package.h"
#include "lidar_utilities_manager.h"

namespace {

void Require(bool holds) {
    if (!holds) std::abort();
}

bool InDataRegion(const u8Array_t& package, const HeronOtaComponentInfo& component) {
    if (package.size() < heron_ota::kHeaderSize) return false;
    const uint64_t data = package.size() - heron_ota::kHeaderSize;
    return component.offset <= data && component.size <= data - component.offset;
}

void CheckAccepted(const u8Array_t& package, const HeronOtaPackageInfo& info) {
    Require((info.flags & heron_ota::kUnknownFlags) == 0);
    std::vector<const HeronOtaComponentInfo*> present;
    for (const heron_ota::ComponentKind& kind : heron_ota::kComponents) {
        const HeronOtaComponentInfo& component = info.*(kind.info);
        if (!component.present) continue;
        Require(component.size > 0 && InDataRegion(package, component));
        present.push_back(&component);
    }
    Require(!present.empty());
    for (size_t i = 0; i < present.size(); ++i)
        for (size_t j = i + 1; j < present.size(); ++j) {
            const uint64_t aEnd = uint64_t(present[i]->offset) + present[i]->size;
            const uint64_t bEnd = uint64_t(present[j]->offset) + present[j]->size;
            Require(aEnd <= present[j]->offset || bEnd <= present[i]->offset);
        }
}

void CheckExtraction(LidarUtilitiesManager& manager, const u8Array_t& package,
                     const HeronOtaComponentInfo& component, const heron_ota::ComponentKind& kind) {
    const u8Array_t bytes = manager.HeronExtractComponentData(package, component, kind.name);
    if (!InDataRegion(package, component)) {
        Require(bytes.empty());
        return;
    }
    uint64_t first = heron_ota::kHeaderSize + uint64_t(component.offset);
    uint64_t count = component.size;
    if (kind.fpga && count > heron_ota::kFpgaLeadingBlock) {
        first += heron_ota::kFpgaLeadingBlock;
        count -= heron_ota::kFpgaLeadingBlock;
    }
    Require(bytes.size() == count);
    Require(std::equal(bytes.begin(), bytes.end(), package.begin() + first));
}

// The other way round: a package built by the rules from the input (the components the first
// byte picks, sizes and bytes from the rest) must be accepted, every component where it was put.
void CheckWellFormedIsAccepted(LidarUtilitiesManager& manager, fuzzing::Input input) {
    const uint8_t pick = input.Byte() & 0x1F;
    if (pick == 0) return;
    std::array<std::optional<u8Array_t>, heron_ota::kComponentCount> parts;
    for (size_t i = 0; i < heron_ota::kComponentCount; ++i) {
        if ((pick & (1u << i)) == 0) continue;
        const size_t size = 1 + (size_t(input.Byte()) << 4) + input.Byte() % 16;
        const std::string bytes = input.Text(size);
        parts[i] = u8Array_t(bytes.begin(), bytes.end());
        parts[i]->resize(size, 0xA5);
    }
    u8Array_t package;
    std::string error;
    Require(heron_ota::BuildPackage(parts, package, error));
    HeronOtaPackageInfo info;
    Require(manager.HeronParseOtaPackageHeader(package, info));
    Require(info.flags == pick);
    for (size_t i = 0; i < heron_ota::kComponentCount; ++i) {
        const heron_ota::ComponentKind& kind = heron_ota::kComponents[i];
        const HeronOtaComponentInfo& component = info.*(kind.info);
        Require(component.present == parts[i].has_value());
        if (!parts[i]) continue;
        u8Array_t expected = *parts[i];
        if (kind.fpga && expected.size() > heron_ota::kFpgaLeadingBlock)
            expected.erase(expected.begin(), expected.begin() + heron_ota::kFpgaLeadingBlock);
        Require(manager.HeronExtractComponentData(package, component, kind.name) == expected);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static int argc = 1;
    static char name[] = "fuzz";
    static char* argv[] = {name, nullptr};
    static QCoreApplication app(argc, argv);
    static auto manager = [] {
        fuzzing::SilenceLogger();
        LidarUtilitiesManager::setDeveloperLineSink([](const std::string&) {});
        return std::make_unique<LidarUtilitiesManager>(0, "");
    }();

    const u8Array_t package(data, data + size);
    HeronOtaPackageInfo info;
    if (manager->HeronParseOtaPackageHeader(package, info)) CheckAccepted(package, info);
    for (const heron_ota::ComponentKind& kind : heron_ota::kComponents)
        CheckExtraction(*manager, package, info.*(kind.info), kind);

    fuzzing::Input tail(size >= 8 ? data + size - 8 : data, size >= 8 ? 8 : 0);
    HeronOtaComponentInfo described;
    described.offset = tail.Word();
    described.size = tail.Word();
    described.present = true;
    for (const heron_ota::ComponentKind& kind : heron_ota::kComponents)
        CheckExtraction(*manager, package, described, kind);
    CheckWellFormedIsAccepted(*manager, fuzzing::Input(data, size));
    return 0;
}
