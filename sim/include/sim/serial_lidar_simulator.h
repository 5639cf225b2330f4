#pragma once

// A simulated Wren on two serial lines, each a pseudo-terminal: the UART line answers serial
// frames (sdk/serial_frame.h) from the model's catalogue and the device's serial state, the
// RS485 line carries a trickle of point-cloud bytes. Tests start it in-process; lidar-sim
// --serial wraps it. docs/simulator.md describes what it does.

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "sim/lidar_simulator.h"

namespace sim {

class SerialLidarSimulator {
  public:
    struct Options {
        std::string model = "Wren";          // catalogue Config/varID/<model>/<model>.csv
        std::string configDir = "./Config";  // folder that holds varID/
        size_t pointCloudBytes = 256;        // written on the RS485 line every interval
        int pointCloudIntervalMs = 100;
    };

    explicit SerialLidarSimulator(Options options);
    ~SerialLidarSimulator();
    SerialLidarSimulator(const SerialLidarSimulator&) = delete;
    SerialLidarSimulator& operator=(const SerialLidarSimulator&) = delete;

    // Loads the catalogue, opens both pseudo-terminals and starts serving; false with a reason.
    bool Start(std::string* error = nullptr);
    void Stop();

    // The slave device paths a client opens ("/dev/pts/N"). The UART path changes only when a
    // hang-up (the close-mid-reply fault) has to replace the pair, which happens when the
    // process may not hang a terminal up (it needs CAP_SYS_ADMIN).
    std::string Rs485Path() const;
    std::string UartPath() const;

    // Complete request frames received on the UART line, per code, including faulted ones.
    uint64_t RequestCount(uint8_t code) const;
    std::map<uint8_t, uint64_t> RequestCounts() const;
    void ResetCounters();

    // Faults per code: no-reply, close-mid-reply (half the reply, then the line hangs up),
    // garbage-before-reply, bad-crc, status=N, delay=MS.
    void SetFault(uint8_t code, Fault fault);
    void ClearFaults();

    SerialState GetState() const;
    void SetFaultState(uint8_t state, const std::vector<uint16_t>& codes);
    // Firmware transfers (0x05) begun since start, oldest first.
    std::vector<Transfer> Transfers() const;
    // A catalogue block as the device holds it (0x06, 0x09 on the Wren).
    std::vector<uint8_t> Block(uint8_t code, const std::vector<uint8_t>& payload = {}) const;
    // Point-cloud bytes the RS485 line took (bytes a full line refused are not counted).
    uint64_t PointCloudBytesWritten() const;

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace sim
