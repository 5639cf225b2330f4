#pragma once

// The byte-flow log lines every client writes (docs/protocol.md, "Byte-flow log"), and the
// transfer sequence the VRC and serial clients share.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "sdk/types.h"
#include "sdk/vrc_client.h"

namespace lidar::detail {

// "0x07": "0x" and two upper-case hexadecimal digits.
std::string CommandText(uint8_t command);

// "SEND 0x07 [8] 56 52 07 00 00 00 00 00": direction, command, the frame's size, then its bytes
// (at most 64, then " ... (N bytes)"). The frame is header, then head, then body.
std::string FrameLine(const char* direction, uint8_t command, const std::vector<uint8_t>& header,
                      const uint8_t* head, size_t headSize, const uint8_t* body, size_t bodySize);

// One phase of a firmware transfer: the phase bytes (`head`) and, for data, the chunk as it lies
// in the package.
struct TransferPhase {
    u8vec head;
    const uint8_t* body = nullptr;
    size_t bodySize = 0;
};

// Sends one phase and returns its client result. `whileWaiting` is work to do once the phase is
// on the wire, before its acknowledgement is read (the chunk's CRC).
using TransferSender =
    std::function<int(const TransferPhase& phase, const std::function<void()>& whileWaiting)>;

// The firmware transfer of both protocols: begin (phase 0, `beginExtra` when given, the 4-byte
// size), data chunks of at most chunkSize (phase 1, 4-byte offset, the bytes), end (phase 2, the
// CRC-32 of the whole package). Stops at the first phase that does not return 0 and returns its
// result. `acknowledged` is told the bytes the device has acknowledged after every chunk (the
// caller turns them into its progress). The caller has checked that the package fits the 4-byte
// size.
int RunTransfer(const u8Array_t& package, size_t chunkSize, std::optional<uint8_t> beginExtra,
                const std::function<void(size_t)>& acknowledged, const TransferSender& send);

}  // namespace lidar::detail
