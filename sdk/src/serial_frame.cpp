#include "sdk/serial_frame.h"

#include <algorithm>
#include <boost/crc.hpp>

namespace lidar::serial {
namespace {

uint32_t ReadLength(const uint8_t* header) {
    return (uint32_t(header[4]) << 24) | (uint32_t(header[5]) << 16) | (uint32_t(header[6]) << 8) |
           uint32_t(header[7]);
}

}  // namespace

uint16_t Crc16(const uint8_t* data, size_t size) {
    boost::crc_optimal<16, 0x1021, 0xFFFF, 0, false, false> crc;
    crc.process_bytes(data, size);
    return crc.checksum();
}

std::vector<uint8_t> EncodeHeader(uint8_t code, uint8_t status, uint32_t payloadLength) {
    return {kStart0,
            kStart1,
            code,
            status,
            static_cast<uint8_t>(payloadLength >> 24),
            static_cast<uint8_t>(payloadLength >> 16),
            static_cast<uint8_t>(payloadLength >> 8),
            static_cast<uint8_t>(payloadLength)};
}

std::vector<uint8_t> EncodeFrame(uint8_t code, uint8_t status,
                                 const std::vector<uint8_t>& payload) {
    std::vector<uint8_t> frame = EncodeHeader(code, status, static_cast<uint32_t>(payload.size()));
    frame.reserve(kHeaderSize + payload.size() + kCrcSize);
    frame.insert(frame.end(), payload.begin(), payload.end());
    const uint16_t crc = Crc16(frame.data() + 2, frame.size() - 2);
    frame.push_back(static_cast<uint8_t>(crc >> 8));
    frame.push_back(static_cast<uint8_t>(crc));
    return frame;
}

void FrameDecoder::DropConsumed() {
    if (readPos_ > 0 && readPos_ == buffer_.size()) {
        buffer_.clear();
        readPos_ = 0;
    } else if (readPos_ > 4096 && readPos_ * 2 > buffer_.size()) {
        buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(readPos_));
        readPos_ = 0;
    }
}

void FrameDecoder::Feed(const uint8_t* data, size_t size) {
    if (size == 0) return;
    DropConsumed();
    buffer_.insert(buffer_.end(), data, data + size);
}

void FrameDecoder::Skip(size_t count) {
    const size_t inFrame = std::min(count, frameBytesLeft_);
    frameBytesLeft_ -= inFrame;
    noiseBytes_ += count - inFrame;
    readPos_ += count;
}

// The frame's bytes are no noise even though the scan goes on from the byte after its marker.
void FrameDecoder::DropFrame(size_t extent) {
    ++droppedFrames_;
    frameBytesLeft_ = std::max(frameBytesLeft_, extent);
    Skip(2);
}

uint32_t FrameDecoder::LimitOf(uint8_t code) const {
    return code == limitedCode_ ? codeLimit_ : kMaxPayload;
}

bool FrameDecoder::SeekStart() {
    const uint8_t* begin = buffer_.data() + readPos_;
    const uint8_t* end = buffer_.data() + buffer_.size();
    for (const uint8_t* p = begin; p < end; ++p) {
        if (*p != kStart0) continue;
        if (p + 1 == end) {  // half a marker: keep it for the next bytes
            Skip(static_cast<size_t>(p - begin));
            return false;
        }
        if (p[1] == kStart1) {
            Skip(static_cast<size_t>(p - begin));
            return true;
        }
    }
    Skip(static_cast<size_t>(end - begin));
    return false;
}

bool FrameDecoder::Next(Frame& out) {
    while (SeekStart()) {
        const size_t available = buffer_.size() - readPos_;
        if (available < kHeaderSize) return false;
        const uint8_t* p = buffer_.data() + readPos_;
        const uint32_t length = ReadLength(p);
        if (length > LimitOf(p[2])) {  // noise that happens to hold a marker
            ++droppedFrames_;
            Skip(2);
            continue;
        }
        const size_t total = kHeaderSize + length + kCrcSize;
        if (available < total) return false;
        const uint16_t expected = static_cast<uint16_t>((p[total - 2] << 8) | p[total - 1]);
        if (Crc16(p + 2, kHeaderSize - 2 + length) != expected) {
            DropFrame(total);
            continue;
        }
        out.code = p[2];
        out.status = p[3];
        out.payload.assign(p + kHeaderSize, p + kHeaderSize + length);
        frameBytesLeft_ -= std::min(total, frameBytesLeft_);
        readPos_ += total;
        return true;
    }
    return false;
}

void FrameDecoder::LimitPayloadOf(uint8_t code, uint32_t limit) {
    limitedCode_ = code;
    codeLimit_ = std::min(limit, kMaxPayload);
}

size_t FrameDecoder::PendingFrameSize() const {
    if (Buffered() < kHeaderSize) return 0;
    const uint8_t* p = buffer_.data() + readPos_;
    if (p[0] != kStart0 || p[1] != kStart1) return 0;
    return kHeaderSize + ReadLength(p) + kCrcSize;
}

uint8_t FrameDecoder::PendingCode() const {
    return PendingFrameSize() > 0 ? buffer_[readPos_ + 2] : 0;
}

bool FrameDecoder::DropPending() {
    if (Buffered() < 2) return false;
    const uint8_t* p = buffer_.data() + readPos_;
    if (p[0] != kStart0 || p[1] != kStart1) return false;
    DropFrame(Buffered());  // what came of it: the rest never did
    return true;
}

void FrameDecoder::Reset() {
    constexpr size_t kKeptCapacity = 64 * 1024;
    if (buffer_.capacity() > kKeptCapacity) {
        std::vector<uint8_t>().swap(buffer_);
    } else {
        buffer_.clear();
    }
    readPos_ = 0;
    frameBytesLeft_ = 0;
    noiseBytes_ = 0;
    droppedFrames_ = 0;
}

}  // namespace lidar::serial
