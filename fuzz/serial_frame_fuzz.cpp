// The serial frame decoder as the serial client and the simulator drive it: a noisy byte stream
// arrives in pieces of any size and whole frames are taken out as they complete. Every frame
// taken out must be one the stream really holds (its CRC right, its length within the limit),
// and the decoder never holds more than the bytes it was given.
// The first 8 input bytes choose the piece sizes; the rest is the byte stream.

#include <cstdlib>

#include "fuzz_support.h"
#include "sdk/serial_frame.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    namespace serial = lidar::serial;
    fuzzing::Input input(data, size);
    uint8_t pieces[8];
    for (uint8_t& piece : pieces) piece = input.Byte();
    serial::FrameDecoder decoder;
    const uint8_t* stream = input.Data();
    const size_t length = input.Left();
    size_t fed = 0, turn = 0, framedBytes = 0;
    while (fed < length) {
        const size_t piece = std::min<size_t>(length - fed, 1u + pieces[turn++ % 8]);
        decoder.Feed(stream + fed, piece);
        fed += piece;
        serial::Frame frame;
        while (decoder.Next(frame)) {
            if (frame.payload.size() > serial::kMaxPayload) std::abort();
            // Re-encoding gives bytes whose CRC the decoder accepted: decode them again.
            const std::vector<uint8_t> again =
                serial::EncodeFrame(frame.code, frame.status, frame.payload);
            serial::FrameDecoder check;
            check.Feed(again.data(), again.size());
            serial::Frame copy;
            if (!check.Next(copy) || copy.payload != frame.payload || copy.code != frame.code)
                std::abort();
            framedBytes += again.size();
        }
    }
    if (decoder.Buffered() > length || framedBytes > length) std::abort();
    return 0;
}
