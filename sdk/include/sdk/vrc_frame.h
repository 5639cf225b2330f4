#pragma once

// VRC framing, shared by the client and the simulator: an 8-byte header (magic 0x56 0x52, command,
// status, big-endian payload length) followed by the payload.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace lidar::vrc {

constexpr uint8_t kMagic0 = 0x56;
constexpr uint8_t kMagic1 = 0x52;
constexpr size_t kHeaderSize = 8;
constexpr uint32_t kMaxPayload = 64u * 1024u * 1024u;

// Device status codes carried in a reply's status byte.
enum Status : uint8_t {
    kStatusOk = 0,
    kStatusBadPayload = 1,
    kStatusUnknownCommand = 2,
    kStatusNotPermitted = 3,
    kStatusBusy = 4,
    kStatusDeviceFailure = 5,
};

struct Frame {
    uint8_t command = 0;
    uint8_t status = 0;
    std::vector<uint8_t> payload;
};

std::vector<uint8_t> EncodeHeader(uint8_t command, uint8_t status, uint32_t payloadLength);
std::vector<uint8_t> EncodeFrame(uint8_t command, uint8_t status,
                                 const std::vector<uint8_t>& payload);

// Incremental decoder: feed bytes as they arrive, take frames out as they complete. The magic and
// the length are checked as soon as their bytes are in, before any payload memory is reserved.
class FrameDecoder {
  public:
    enum class Result { kNeedMore, kFrame, kMalformed };

    // Appends bytes to the decoder's buffer.
    void Feed(const uint8_t* data, size_t size);
    // Receiving without a copy: Space(n) makes room for n more bytes at the end of the buffer and
    // returns where they go; Commit(received) keeps the first `received` of them (at most n).
    uint8_t* Space(size_t n);
    void Commit(size_t received);
    // Takes the next complete frame out of the buffer. kMalformed is final until Reset().
    Result Next(Frame& out);
    // Bytes held that do not yet form a frame.
    size_t Buffered() const { return buffer_.size() - readPos_; }
    void Reset();

  private:
    void DropConsumed();

    std::vector<uint8_t> buffer_;
    size_t readPos_ = 0;
    size_t spaceStart_ = 0;  // where the room of the last Space() begins
    bool malformed_ = false;
};

}  // namespace lidar::vrc
