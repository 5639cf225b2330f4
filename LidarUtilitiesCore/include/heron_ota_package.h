#pragma once

// The Heron OTA package format: a 56-byte little-endian header ("NRVK", the total size, the
// component flags, then an offset and a size per component, offsets counted from the data
// region after the header) and the components' bytes. The manager parses packages
// (HeronParseOtaPackageHeader); this file describes the format and builds packages, for
// `lidarutil ota pack` and for tests.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

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

}  // namespace heron_ota
