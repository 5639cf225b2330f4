#include "heron_ota_package.h"

#include <cstdint>

namespace heron_ota {
namespace {

void PutLittleEndian32(u8Array_t& bytes, size_t at, uint32_t value) {
    for (size_t i = 0; i < 4; ++i) bytes[at + i] = static_cast<uint8_t>(value >> (8 * i));
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

}  // namespace heron_ota
