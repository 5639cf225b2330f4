#pragma once

// Helpers for the fuzz targets: a scratch file for parsers that read paths, and a quiet logger.

#include <cstddef>
#include <cstdint>
#include <string>

namespace fuzzing {

// Writes data to this process's scratch file (replacing it) and returns its path.
const std::string& WriteScratchFile(const uint8_t* data, size_t size, const char* suffix);

// Sends the SDK logger's lines nowhere, once.
void SilenceLogger();

// Takes bytes off the front of the input: a tiny reader for choosing sizes and split points.
class Input {
  public:
    Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    uint8_t Byte() { return size_ > 0 ? (--size_, *data_++) : 0; }
    uint32_t Word() {
        uint32_t value = 0;
        for (int i = 0; i < 4; ++i) value = (value << 8) | Byte();
        return value;
    }
    std::string Text(size_t length) {
        length = length < size_ ? length : size_;
        std::string text(reinterpret_cast<const char*>(data_), length);
        data_ += length;
        size_ -= length;
        return text;
    }
    std::string Rest() { return Text(size_); }
    size_t Left() const { return size_; }
    const uint8_t* Data() const { return data_; }

  private:
    const uint8_t* data_;
    size_t size_;
};

}  // namespace fuzzing
