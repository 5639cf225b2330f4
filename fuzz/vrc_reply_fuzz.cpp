// The VRC reply deframer as the client's receive path drives it: bytes arrive in pieces of any
// size, frames are taken out as they complete, a malformed stream stops the decoder for good.
// The first input bytes choose the piece sizes and how each piece comes in (Feed, or received
// into Space with a room larger than what arrives); the rest is the byte stream.

#include <cstdlib>
#include <cstring>

#include "fuzz_support.h"
#include "sdk/vrc_frame.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzing::Input input(data, size);
    uint8_t pieces[8];
    for (uint8_t& piece : pieces) piece = input.Byte();
    lidar::vrc::FrameDecoder decoder;
    size_t fed = 0, turn = 0;
    const uint8_t* stream = input.Data();
    const size_t length = input.Left();
    while (fed < length) {
        const uint8_t choice = pieces[turn++ % 8];
        const size_t piece = std::min<size_t>(length - fed, 1u + choice);
        if (choice & 1) {
            uint8_t* room = decoder.Space(piece + choice % 5);
            std::memcpy(room, stream + fed, piece);
            decoder.Commit(piece);
        } else {
            decoder.Feed(stream + fed, piece);
        }
        fed += piece;
        lidar::vrc::Frame frame;
        for (;;) {
            const auto result = decoder.Next(frame);
            if (result == lidar::vrc::FrameDecoder::Result::kMalformed) return 0;
            if (result == lidar::vrc::FrameDecoder::Result::kNeedMore) break;
            // A complete frame never claims more than the protocol allows.
            if (frame.payload.size() > lidar::vrc::kMaxPayload) std::abort();
        }
    }
    // What is held is at most one frame in progress.
    if (decoder.Buffered() > length) std::abort();
    return 0;
}
