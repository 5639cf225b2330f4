#pragma once

// The Heron OTA package format: a 56-byte little-endian header ("NRVK", the total size, the
// component flags, then an offset and a size per component, offsets counted from the data
// region after the header) and the components' bytes. This file describes the format, checks a
// package's header and takes its components out (the manager's upgrade and parser use these and
// log the refusals), inspects a package (`lidarutil ota inspect` and the window's firmware view
// show the same inspection) and builds packages, for `lidarutil ota pack` and for tests.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "records.h"
#include "sdk/types.h"

namespace heron_ota {

constexpr size_t kHeaderSize = 56;
constexpr char kMagic[4] = {'N', 'R', 'V', 'K'};
constexpr size_t kTotalSizeAt = 4;
constexpr size_t kFlagsAt = 8;
constexpr size_t kFirstComponentAt = 12;  // offset, then size, 8 bytes per component
constexpr uint8_t kUnknownFlags = 0xE0;   // bits 5 to 7 name no component
// FPGA images start with a block the lidar does not take.
constexpr size_t kFpgaLeadingBlock = 1024;

// One of the five components, in flag-bit order: its name as the manager's messages write it,
// the type byte the lidar is sent with it, and where the parsed header keeps it.
struct ComponentKind {
    const char* name;
    uint8_t type;
    HeronOtaComponentInfo HeronOtaPackageInfo::*info;
    bool fpga;
};
constexpr size_t kComponentCount = 5;
extern const std::array<ComponentKind, kComponentCount> kComponents;

// Index of the component named `name` (BMB_APP_A ... TMB_PARAM) in kComponents, or nullopt.
std::optional<size_t> ComponentIndex(const std::string& name);

// The 56 header bytes for info: every component's offset and size are written as given, present
// or not, so that tests can describe any header, valid or not.
u8Array_t EncodeHeader(const HeronOtaPackageInfo& info);

// A package of the given components (by kComponents index; absent ones left out), their bytes
// back to back in flag-bit order. False with a reason when no component is given, one is empty,
// or the package would not fit the header's 32-bit sizes.
bool BuildPackage(const std::array<std::optional<u8Array_t>, kComponentCount>& components,
                  u8Array_t& package, std::string& error);

// Reads a package's header into `info` (zeroed first) and checks it: the magic, the flags, every
// present component non-empty, inside the data region and clear of the others. False with the
// refusal in `reason`; a package smaller than the header is refused with `reason` left empty
// (the upgrade logs nothing for it).
bool CheckHeader(const u8Array_t& package, HeronOtaPackageInfo& info, std::string& reason);

// The bytes of `component` (named `name`) the lidar is sent: an FPGA image without its leading
// block. Empty, with the refusal in `reason`, when the component lies outside the package.
u8Array_t ExtractComponent(const u8Array_t& package, const HeronOtaComponentInfo& component,
                           const std::string& name, std::string& reason);

// One present component as a package holds it and as the upgrade sends it, with the CRC-32 of
// both (the CRC a lidar, and the simulator, computes over what it received).
struct ComponentReport {
    std::string name;
    uint8_t type = 0;
    uint32_t offset = 0;
    uint32_t size = 0;
    uint32_t crc32 = 0;
    uint64_t sentSize = 0;
    uint32_t sentCrc32 = 0;
};

// What the upgrade would make of a package: refused with the reason, or its components in
// flag-bit order.
struct Inspection {
    bool valid = false;
    std::string reason;
    HeronOtaPackageInfo info;
    std::vector<ComponentReport> components;
};
Inspection Inspect(const u8Array_t& package);

}  // namespace heron_ota
