#include "sdk/vrc_frame.h"

#include <algorithm>

namespace lidar::vrc {

std::vector<uint8_t> EncodeHeader(uint8_t command, uint8_t status, uint32_t payloadLength) {
    return {kMagic0,
            kMagic1,
            command,
            status,
            static_cast<uint8_t>(payloadLength >> 24),
            static_cast<uint8_t>(payloadLength >> 16),
            static_cast<uint8_t>(payloadLength >> 8),
            static_cast<uint8_t>(payloadLength)};
}

std::vector<uint8_t> EncodeFrame(uint8_t command, uint8_t status,
                                 const std::vector<uint8_t>& payload) {
    std::vector<uint8_t> frame =
        EncodeHeader(command, status, static_cast<uint32_t>(payload.size()));
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
}

// Drops consumed bytes before the buffer grows, so a long-lived connection does not accumulate
// them.
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
    if (malformed_ || size == 0) return;
    DropConsumed();
    buffer_.insert(buffer_.end(), data, data + size);
}

uint8_t* FrameDecoder::Space(size_t n) {
    DropConsumed();
    spaceStart_ = buffer_.size();
    buffer_.resize(spaceStart_ + n);
    return buffer_.data() + spaceStart_;
}

void FrameDecoder::Commit(size_t received) {
    const size_t end = spaceStart_ + std::min(received, buffer_.size() - spaceStart_);
    // A decoder that found a malformed frame keeps no more bytes, as Feed does.
    buffer_.resize(malformed_ ? spaceStart_ : end);
}

FrameDecoder::Result FrameDecoder::Next(Frame& out) {
    if (malformed_) return Result::kMalformed;
    const size_t available = buffer_.size() - readPos_;
    const uint8_t* p = buffer_.data() + readPos_;
    if ((available >= 1 && p[0] != kMagic0) || (available >= 2 && p[1] != kMagic1)) {
        malformed_ = true;
        return Result::kMalformed;
    }
    if (available < kHeaderSize) return Result::kNeedMore;
    const uint32_t length =
        (uint32_t(p[4]) << 24) | (uint32_t(p[5]) << 16) | (uint32_t(p[6]) << 8) | uint32_t(p[7]);
    if (length > kMaxPayload) {
        malformed_ = true;
        return Result::kMalformed;
    }
    if (available < kHeaderSize + length) return Result::kNeedMore;
    out.command = p[2];
    out.status = p[3];
    out.payload.assign(p + kHeaderSize, p + kHeaderSize + length);
    readPos_ += kHeaderSize + length;
    return Result::kFrame;
}

void FrameDecoder::Reset() {
    // A buffer that held a large frame (a log) is released rather than kept for small ones.
    constexpr size_t kKeptCapacity = 1024 * 1024;
    if (buffer_.capacity() > kKeptCapacity) {
        std::vector<uint8_t>().swap(buffer_);
    } else {
        buffer_.clear();
    }
    readPos_ = 0;
    malformed_ = false;
}

}  // namespace lidar::vrc
