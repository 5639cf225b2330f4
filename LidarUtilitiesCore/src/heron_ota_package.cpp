#include "heron_ota_package.h"

#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <utility>

namespace heron_ota {
namespace {

void PutLittleEndian32(u8Array_t& bytes, size_t at, uint32_t value) {
    for (size_t i = 0; i < 4; ++i) bytes[at + i] = static_cast<uint8_t>(value >> (8 * i));
}

uint32_t ReadLittleEndian32(const u8Array_t& bytes, size_t at) {
    return uint32_t(bytes[at]) | (uint32_t(bytes[at + 1]) << 8) | (uint32_t(bytes[at + 2]) << 16) |
           (uint32_t(bytes[at + 3]) << 24);
}

// zlib's CRC-32 of `size` bytes, fed in pieces: zlib takes at most 4 GiB - 1 at a time.
uint32_t Crc32(const uint8_t* bytes, uint64_t size) {
    uLong crc = crc32(0L, Z_NULL, 0);
    while (size > 0) {
        const uInt piece = static_cast<uInt>(std::min<uint64_t>(size, 1u << 30));
        crc = crc32(crc, bytes, piece);
        bytes += piece;
        size -= piece;
    }
    return static_cast<uint32_t>(crc);
}

// The components' places in the data region are checked in 64-bit arithmetic: the header's
// numbers come from a file nobody vouches for.
bool CheckComponents(const HeronOtaPackageInfo& info, uint64_t dataLength, std::string& reason) {
    std::vector<std::pair<uint64_t, uint64_t>> ranges;  // offset, size
    for (const ComponentKind& kind : kComponents) {
        const HeronOtaComponentInfo& component = info.*(kind.info);
        if (!component.present) continue;
        const std::string name = kind.name;
        if (component.size == 0) {
            reason = "Component " + name + " size is zero";
            return false;
        }
        if (component.offset > dataLength || component.size > dataLength - component.offset) {
            reason = "Component " + name + " is out of file range";
            return false;
        }
        ranges.emplace_back(component.offset, component.size);
    }
    if (ranges.empty()) {
        reason = "No component found in package";
        return false;
    }
    std::stable_sort(ranges.begin(), ranges.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    for (size_t i = 1; i < ranges.size(); ++i) {
        // Sorted, so the difference cannot wrap; equal offsets overlap (sizes are not zero).
        if (ranges[i - 1].second > ranges[i].first - ranges[i - 1].first) {
            reason = "Component overlap";
            return false;
        }
    }
    return true;
}

}  // namespace

const std::array<ComponentKind, kComponentCount> kComponents = {{
    {"BMB_APP_A", 2, &HeronOtaPackageInfo::bmb_app_a, false},
    {"BMB_APP_B", 2, &HeronOtaPackageInfo::bmb_app_b, false},
    {"BMB_FPGA", 1, &HeronOtaPackageInfo::bmb_fpga, true},
    {"TMB_FPGA", 0, &HeronOtaPackageInfo::tmb_fpga, true},
    {"TMB_PARAM", 3, &HeronOtaPackageInfo::tmb_param, false},
}};

std::optional<size_t> ComponentIndex(const std::string& name) {
    for (size_t i = 0; i < kComponents.size(); ++i)
        if (name == kComponents[i].name) return i;
    return std::nullopt;
}

u8Array_t EncodeHeader(const HeronOtaPackageInfo& info) {
    u8Array_t header(kHeaderSize, 0);
    for (size_t i = 0; i < sizeof kMagic; ++i) header[i] = static_cast<uint8_t>(kMagic[i]);
    PutLittleEndian32(header, kTotalSizeAt, info.total_size);
    header[kFlagsAt] = info.flags;
    for (size_t i = 0; i < kComponents.size(); ++i) {
        const HeronOtaComponentInfo& component = info.*(kComponents[i].info);
        PutLittleEndian32(header, kFirstComponentAt + 8 * i, component.offset);
        PutLittleEndian32(header, kFirstComponentAt + 8 * i + 4, component.size);
    }
    return header;
}

bool BuildPackage(const std::array<std::optional<u8Array_t>, kComponentCount>& components,
                  u8Array_t& package, std::string& error) {
    HeronOtaPackageInfo info;
    uint64_t dataSize = 0;
    for (size_t i = 0; i < kComponents.size(); ++i) {
        if (!components[i]) continue;
        if (components[i]->empty()) {
            error = std::string("component ") + kComponents[i].name + " is empty";
            return false;
        }
        HeronOtaComponentInfo& component = info.*(kComponents[i].info);
        component.present = true;
        component.offset = static_cast<uint32_t>(dataSize);
        dataSize += components[i]->size();
        if (kHeaderSize + dataSize > UINT32_MAX) {
            error = "the package would exceed 4 GiB - 1 bytes, the most its header can describe";
            return false;
        }
        component.size = static_cast<uint32_t>(components[i]->size());
        info.flags = static_cast<uint8_t>(info.flags | (1u << i));
    }
    if (info.flags == 0) {
        error = "no component given";
        return false;
    }
    info.total_size = static_cast<uint32_t>(kHeaderSize + dataSize);
    package = EncodeHeader(info);
    package.reserve(info.total_size);
    for (const std::optional<u8Array_t>& component : components)
        if (component) package.insert(package.end(), component->begin(), component->end());
    return true;
}

bool CheckHeader(const u8Array_t& package, HeronOtaPackageInfo& info, std::string& reason) {
    info = HeronOtaPackageInfo{};
    reason.clear();
    if (package.size() < kHeaderSize) return false;
    if (!std::equal(std::begin(kMagic), std::end(kMagic), package.begin(),
                    [](char expected, uint8_t byte) { return uint8_t(expected) == byte; })) {
        reason = "Invalid OTA package magic";
        return false;
    }
    info.total_size = ReadLittleEndian32(package, kTotalSizeAt);
    info.flags = package[kFlagsAt];
    if ((info.flags & kUnknownFlags) != 0) {
        reason = "Invalid OTA component flags";
        return false;
    }
    for (size_t i = 0; i < kComponentCount; ++i) {
        if ((info.flags & (1u << i)) == 0) continue;
        HeronOtaComponentInfo& component = info.*(kComponents[i].info);
        component.offset = ReadLittleEndian32(package, kFirstComponentAt + 8 * i);
        component.size = ReadLittleEndian32(package, kFirstComponentAt + 8 * i + 4);
        component.present = true;
    }
    return CheckComponents(info, package.size() - kHeaderSize, reason);
}

u8Array_t ExtractComponent(const u8Array_t& package, const HeronOtaComponentInfo& component,
                           const std::string& name, std::string& reason) {
    reason.clear();
    if (package.size() < kHeaderSize) {
        reason = "Component " + name + " package too small";
        return {};
    }
    const uint64_t dataLength = package.size() - kHeaderSize;
    if (component.offset > dataLength || component.size > dataLength - component.offset) {
        reason = "Component " + name + " data out of range";
        return {};
    }
    uint64_t first = kHeaderSize + uint64_t(component.offset);
    uint64_t count = component.size;
    // FPGA images lead with a block the lidar does not take; a smaller image goes whole.
    const std::optional<size_t> index = ComponentIndex(name);
    if (index && kComponents[*index].fpga && count > kFpgaLeadingBlock) {
        first += kFpgaLeadingBlock;
        count -= kFpgaLeadingBlock;
    }
    const auto begin = package.begin() + static_cast<std::ptrdiff_t>(first);
    return u8Array_t(begin, begin + static_cast<std::ptrdiff_t>(count));
}

Inspection Inspect(const u8Array_t& package) {
    Inspection inspection;
    inspection.valid = CheckHeader(package, inspection.info, inspection.reason);
    if (!inspection.valid) {
        if (inspection.reason.empty())
            inspection.reason = "the file holds " + std::to_string(package.size()) +
                                " bytes, fewer than the " + std::to_string(kHeaderSize) +
                                " of the header";
        return inspection;
    }
    for (const ComponentKind& kind : kComponents) {
        const HeronOtaComponentInfo& component = inspection.info.*(kind.info);
        if (!component.present) continue;
        std::string unused;
        const u8Array_t sent = ExtractComponent(package, component, kind.name, unused);
        ComponentReport report;
        report.name = kind.name;
        report.type = kind.type;
        report.offset = component.offset;
        report.size = component.size;
        report.crc32 = Crc32(package.data() + kHeaderSize + component.offset, component.size);
        report.sentSize = sent.size();
        report.sentCrc32 = Crc32(sent.data(), sent.size());
        inspection.components.push_back(std::move(report));
    }
    return inspection;
}

}  // namespace heron_ota
