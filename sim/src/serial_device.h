#pragma once

// The Wren's serial command set, shared by the UART line (SerialLidarSimulator) and by the
// VRC-over-serial models' 0xB2-0xB5 and 0xB8 (Device), so that the device has one serial-side
// state however it is reached.

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

#include "block_store.h"
#include "sim/lidar_simulator.h"
#include "upgrade_receiver.h"

namespace sim::detail {

struct SerialReply {
    uint8_t status = 0;
    Bytes payload;
};

class SerialDevice {
  public:
    // Serial codes of the settings, the fault state and the firmware transfer.
    static constexpr uint8_t kSetStandby = 0x01;
    static constexpr uint8_t kSetSpinRate = 0x02;
    static constexpr uint8_t kSetReturnMode = 0x03;
    static constexpr uint8_t kFaultState = 0x04;
    static constexpr uint8_t kFirmwareUpgrade = 0x05;

    explicit SerialDevice(BlockStore& blocks);
    // true: the catalogue is the serial model's own (codes are serial codes: the settings are its
    // set commands 0x01-0x03, and other codes are looked up in it). false: a VRC-over-serial
    // catalogue whose set commands 0xB2-0xB4 hold the settings; codes other than 0x01-0x05 are
    // unknown.
    void SetSerialCatalogue(bool serialCatalogue) { serialCatalogue_.store(serialCatalogue); }

    SerialReply Handle(uint8_t code, const Bytes& payload);
    SerialState State() const;
    void SetFaultState(uint8_t state, const std::vector<uint16_t>& codes);
    // Firmware transfers (0x05) begun since start, oldest first.
    std::vector<Transfer> Transfers() const;

  private:
    SerialReply Setting(size_t index, const Bytes& payload);
    uint8_t SettingValue(size_t index) const;
    SerialReply FaultStateReply() const;
    SerialReply Upgrade(const Bytes& payload);
    SerialReply Catalogue(uint8_t code, const Bytes& payload);
    uint8_t CatalogueSetCommand(size_t index) const;

    BlockStore& blocks_;
    std::atomic<bool> serialCatalogue_{true};
    mutable std::mutex mutex_;
    std::array<uint8_t, 3> ownSettings_{};  // for a catalogue without the setting's command
    uint8_t faultState_ = 0;
    std::vector<uint16_t> faultCodes_;
    UpgradeReceiver upgrade_;
    std::vector<Transfer> transfers_;
};

}  // namespace sim::detail
