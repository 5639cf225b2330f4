#include "client_common.h"

#include <zlib.h>

#include <algorithm>
#include <cstdio>

namespace lidar::detail {
namespace {

constexpr size_t kLoggedBytes = 64;
constexpr uint8_t kPhaseBegin = 0;
constexpr uint8_t kPhaseData = 1;
constexpr uint8_t kPhaseEnd = 2;

void AppendUint32(u8vec& out, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(static_cast<uint8_t>(value >> shift));
}

}  // namespace

std::string CommandText(uint8_t command) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02X", command);
    return text;
}

std::string FrameLine(const char* direction, uint8_t command, const std::vector<uint8_t>& header,
                      const uint8_t* head, size_t headSize, const uint8_t* body, size_t bodySize) {
    const size_t total = header.size() + headSize + bodySize;
    std::string line =
        std::string(direction) + " " + CommandText(command) + " [" + std::to_string(total) + "]";
    const size_t shown = std::min(total, kLoggedBytes);
    line.reserve(line.size() + shown * 3 + 24);
    char hex[4];
    for (size_t i = 0; i < shown; ++i) {
        uint8_t byte = 0;
        if (i < header.size()) {
            byte = header[i];
        } else if (i < header.size() + headSize) {
            byte = head[i - header.size()];
        } else {
            byte = body[i - header.size() - headSize];
        }
        std::snprintf(hex, sizeof hex, " %02X", byte);
        line += hex;
    }
    if (shown < total) line += " ... (" + std::to_string(total) + " bytes)";
    return line;
}

// The CRC of a chunk is computed while the device handles it, so it costs no time of its own
// and the package is read once.
int RunTransfer(const u8Array_t& package, size_t chunkSize, std::optional<uint8_t> beginExtra,
                const std::function<void(size_t)>& acknowledged, const TransferSender& send) {
    TransferPhase phase;
    phase.head = {kPhaseBegin};
    if (beginExtra) phase.head.push_back(*beginExtra);
    AppendUint32(phase.head, static_cast<uint32_t>(package.size()));
    int result = send(phase, nullptr);
    if (result != kVrcOk) return result;

    uLong crc = crc32(0L, Z_NULL, 0);
    for (size_t offset = 0; offset < package.size(); offset += chunkSize) {
        const size_t size = std::min(chunkSize, package.size() - offset);
        phase.head = {kPhaseData};
        AppendUint32(phase.head, static_cast<uint32_t>(offset));
        phase.body = package.data() + offset;
        phase.bodySize = size;
        result = send(phase, [&crc, &phase] {
            crc = crc32(crc, phase.body, static_cast<uInt>(phase.bodySize));
        });
        if (result != kVrcOk) return result;
        acknowledged(offset + size);
    }

    phase.head = {kPhaseEnd};
    AppendUint32(phase.head, static_cast<uint32_t>(crc));
    phase.body = nullptr;
    phase.bodySize = 0;
    return send(phase, nullptr);
}

}  // namespace lidar::detail
