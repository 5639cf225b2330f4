// Serial framing: the CRC's check value, and the decoder on noisy, damaged and hostile streams.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sdk/serial_frame.h"

namespace {

namespace serial = lidar::serial;
using Bytes = std::vector<uint8_t>;

Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

std::vector<serial::Frame> DecodeAll(serial::FrameDecoder& decoder, const Bytes& bytes,
                                     size_t piece) {
    std::vector<serial::Frame> frames;
    for (size_t at = 0; at < bytes.size(); at += piece) {
        decoder.Feed(bytes.data() + at, std::min(piece, bytes.size() - at));
        serial::Frame frame;
        while (decoder.Next(frame)) frames.push_back(frame);
    }
    return frames;
}

TEST(SerialFrame, CrcHasTheStandardCheckValueAndFramesCarryIt) {
    const std::string check = "123456789";
    EXPECT_EQ(serial::Crc16(reinterpret_cast<const uint8_t*>(check.data()), check.size()), 0x29B1);

    // Fault state reply: state 1, code 0x00A1. The CRC covers code, status, length and payload.
    const Bytes frame = serial::EncodeFrame(0x04, 0, {0x01, 0xA1, 0x00});
    ASSERT_EQ(frame.size(), 8u + 3u + 2u);
    EXPECT_EQ(Bytes(frame.begin(), frame.begin() + 8), (Bytes{0xA5, 0x5A, 0x04, 0, 0, 0, 0, 3}));
    const uint16_t crc = serial::Crc16(frame.data() + 2, 9);
    EXPECT_EQ(frame[11], crc >> 8);
    EXPECT_EQ(frame[12], crc & 0xFF);
}

TEST(SerialFrame, DecoderFindsFramesInNoiseInAnyPieces) {
    const Bytes first = serial::EncodeFrame(0x01, 0, {1});
    const Bytes second = serial::EncodeFrame(0x06, 2, Bytes(300, 0x5A));
    // Noise with a lone 0xA5, a marker split across pieces and a false marker announcing 2 GiB.
    const Bytes noise = {0x00, 0xA5, 0x13, 0xA5, 0x5A, 0x7F, 0xFF, 0xFF, 0xFF, 0x42};
    const Bytes stream = Concat({noise, first, {0xA5}, noise, second, {0xA5}});
    for (size_t piece : {size_t{1}, size_t{3}, size_t{7}, stream.size()}) {
        SCOPED_TRACE(piece);
        serial::FrameDecoder decoder;
        const std::vector<serial::Frame> frames = DecodeAll(decoder, stream, piece);
        ASSERT_EQ(frames.size(), 2u);
        EXPECT_EQ(frames[0].code, 0x01);
        EXPECT_EQ(frames[0].payload, Bytes{1});
        EXPECT_EQ(frames[1].code, 0x06);
        EXPECT_EQ(frames[1].status, 2);
        EXPECT_EQ(frames[1].payload, Bytes(300, 0x5A));
        EXPECT_EQ(decoder.Buffered(), 1u);  // the trailing 0xA5 may begin a marker
        EXPECT_EQ(decoder.NoiseBytes(), 2 * noise.size() + 1);  // the 0xA5 after `first` too
    }
}

TEST(SerialFrame, DamagedFrameIsDroppedAndTheScanResumesInsideIt) {
    const Bytes good = serial::EncodeFrame(0x02, 0, {10});
    // A damaged header claims 20 payload bytes, which swallow the good frame that follows; after
    // the CRC fails the scan goes on from the damaged frame's marker and finds the good one.
    Bytes damaged = serial::EncodeFrame(0x09, 0, Bytes(3, 7));
    damaged[7] = 20;
    damaged.resize(8);
    Bytes badCrc = serial::EncodeFrame(0x03, 0, {1});
    badCrc.back() ^= 0xFF;
    const Bytes stream = Concat({badCrc, damaged, good, Bytes(20, 0)});
    serial::FrameDecoder decoder;
    const std::vector<serial::Frame> frames = DecodeAll(decoder, stream, 5);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].code, 0x02);
    EXPECT_EQ(frames[0].payload, Bytes{10});
    EXPECT_EQ(decoder.DroppedFrames(), 2u);
    // The dropped frames' bytes are no noise; only the zeros past the damaged one's extent are.
    EXPECT_EQ(decoder.NoiseBytes(), 9u);
}

TEST(SerialFrame, OverLongLengthIsNoFrameAndReservesNothing) {
    serial::FrameDecoder decoder;
    serial::Frame frame;
    // One byte over the limit: not a frame start, skipped at once, the good frame after it found.
    const Bytes overLong = serial::EncodeHeader(0x06, 0, serial::kMaxPayload + 1);
    const Bytes good = serial::EncodeFrame(0x04, 0, {0});
    decoder.Feed(overLong.data(), overLong.size());
    EXPECT_FALSE(decoder.Next(frame));
    EXPECT_EQ(decoder.DroppedFrames(), 1u);
    decoder.Feed(good.data(), good.size());
    ASSERT_TRUE(decoder.Next(frame));
    EXPECT_EQ(frame.code, 0x04);

    // At the limit the header is a frame start, but only the bytes that came are held.
    const Bytes atLimit = serial::EncodeHeader(0x06, 0, serial::kMaxPayload);
    decoder.Feed(atLimit.data(), atLimit.size());
    EXPECT_FALSE(decoder.Next(frame));
    EXPECT_EQ(decoder.Buffered(), 8u);
}

TEST(SerialFrame, AFrameBegunCanBeGivenUpAndTheLengthBounded) {
    const Bytes good = serial::EncodeFrame(0x01, 0, {});
    const Bytes falseStart = serial::EncodeHeader(0x04, 0, 1000);
    serial::FrameDecoder decoder;
    serial::Frame frame;
    // A lone marker is given up too.
    decoder.Feed(falseStart.data(), 2);
    EXPECT_EQ(decoder.PendingFrameSize(), 0u);
    EXPECT_TRUE(decoder.DropPending());
    EXPECT_EQ(decoder.Buffered(), 0u);
    EXPECT_FALSE(decoder.DropPending());
    // A plausible length swallows the real frame until the frame begun is given up.
    decoder.Feed(falseStart.data(), falseStart.size());
    decoder.Feed(good.data(), good.size());
    EXPECT_FALSE(decoder.Next(frame));
    EXPECT_EQ(decoder.PendingFrameSize(), 1010u);
    EXPECT_EQ(decoder.PendingCode(), 0x04);
    EXPECT_TRUE(decoder.DropPending());
    ASSERT_TRUE(decoder.Next(frame));
    EXPECT_EQ(frame.code, 0x01);
    EXPECT_EQ(decoder.DroppedFrames(), 2u);
    EXPECT_EQ(decoder.NoiseBytes(), 0u);  // the frames given up are no noise
    // With its code limited to an empty payload, the same false start is no frame start; a
    // frame of another code still carries its payload.
    decoder.Reset();
    decoder.LimitPayloadOf(0x04, 0);
    const Bytes block = serial::EncodeFrame(0x09, 0, Bytes(300, 1));
    for (const Bytes& bytes : {falseStart, good, block}) decoder.Feed(bytes.data(), bytes.size());
    ASSERT_TRUE(decoder.Next(frame));
    EXPECT_EQ(frame.code, 0x01);
    ASSERT_TRUE(decoder.Next(frame));
    EXPECT_EQ(frame.payload, Bytes(300, 1));
}

}  // namespace
