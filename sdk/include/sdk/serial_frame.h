#pragma once

// Serial framing of the UART command line, shared by the serial client and the simulator:
// start marker 0xA5 0x5A, code, status, big-endian 4-byte payload length, the payload, then the
// CRC-16/CCITT-FALSE of everything from the code to the payload's end, big-endian.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace lidar::serial {

constexpr uint8_t kStart0 = 0xA5;
constexpr uint8_t kStart1 = 0x5A;
constexpr size_t kHeaderSize = 8;
constexpr size_t kCrcSize = 2;
constexpr uint32_t kMaxPayload = 1024u * 1024u;

// CRC-16/CCITT-FALSE: polynomial 0x1021, initial value 0xFFFF, no reflection, no final XOR.
uint16_t Crc16(const uint8_t* data, size_t size);

struct Frame {
    uint8_t code = 0;
    uint8_t status = 0;
    std::vector<uint8_t> payload;
};

std::vector<uint8_t> EncodeHeader(uint8_t code, uint8_t status, uint32_t payloadLength);
// Header, payload and CRC. The payload must not exceed kMaxPayload.
std::vector<uint8_t> EncodeFrame(uint8_t code, uint8_t status, const std::vector<uint8_t>& payload);

// Incremental decoder for a byte stream that may carry noise. Bytes before a start marker are
// skipped; a header announcing more than its code may carry (1 MiB, or less for the code given to
// LimitPayloadOf) is not a frame start; a frame whose CRC does not match is dropped and the scan
// goes on from the byte after its start marker, so a real frame hidden inside the dropped bytes is
// still found. Nothing is reserved for a length before the bytes themselves are in.
class FrameDecoder {
  public:
    void Feed(const uint8_t* data, size_t size);
    // Takes the next whole, valid frame out; false when more bytes are needed.
    bool Next(Frame& out);
    // Bytes held that may still begin a frame.
    size_t Buffered() const { return buffer_.size() - readPos_; }
    // A header of `code` announcing more than `limit` (at most kMaxPayload) is not a frame start;
    // every other code may announce up to kMaxPayload. The reply awaited has a bound known from
    // its code, while a late reply to another request may be long and must be taken whole, not
    // searched for frames inside. One code at a time: a call replaces the last one's. Kept
    // across Reset.
    void LimitPayloadOf(uint8_t code, uint32_t limit);
    // The whole size on the wire of the frame whose header is held and whose rest is still to
    // come; 0 when no header is held.
    size_t PendingFrameSize() const;
    // The code of that frame (0 when none is held).
    uint8_t PendingCode() const;
    // Gives up the frame begun at the held start marker (its rest is not coming): it counts as
    // dropped and the scan goes on from the byte after the marker. False when none is held.
    bool DropPending();
    // Since the last Reset: bytes that belonged to no frame (skipped outside every frame taken
    // out, dropped for its CRC or given up), and frames dropped (bad CRC, a length over the
    // limit, given up).
    uint64_t NoiseBytes() const { return noiseBytes_; }
    uint64_t DroppedFrames() const { return droppedFrames_; }
    void Reset();

  private:
    // Moves readPos_ to the next start marker (or to a lone 0xA5 at the end); true when a whole
    // marker is there.
    bool SeekStart();
    // Moves readPos_ `count` bytes on; those outside a frame's extent are noise.
    void Skip(size_t count);
    // Drops the frame begun at readPos_, whose bytes reach `extent` bytes on: they are no noise.
    void DropFrame(size_t extent);
    uint32_t LimitOf(uint8_t code) const;
    void DropConsumed();

    std::vector<uint8_t> buffer_;
    size_t readPos_ = 0;
    int limitedCode_ = -1;  // the code LimitPayloadOf bounds, -1 none
    uint32_t codeLimit_ = kMaxPayload;
    size_t frameBytesLeft_ = 0;  // bytes from readPos_ on that belong to a frame found or dropped
    uint64_t noiseBytes_ = 0;
    uint64_t droppedFrames_ = 0;
};

}  // namespace lidar::serial
