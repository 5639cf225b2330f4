#pragma once

// The Wren's serial command client: serial frames (sdk/serial_frame.h) over the UART line, one
// request at a time, the operations of the Wren's serial command set, and the firmware transfer.
// Results are the client result codes of the protocol (docs/protocol.md, "Serial client").

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "sdk/serial_frame.h"
#include "sdk/types.h"
#include "sdk/vrc_client.h"

namespace lidar {

class SerialSource;

class SerialClient {
  public:
    SerialClient();
    ~SerialClient();
    SerialClient(const SerialClient&) = delete;
    SerialClient& operator=(const SerialClient&) = delete;

    // `first` carries requests and replies (the UART line, a command line with setNeedRecv(false));
    // `second` is the RS485 point-cloud line, only counted. The client does not own the sources:
    // they must outlive every call that may still use them. Closing a source wakes a query that
    // waits on it. Waits for a running query before switching.
    void SetSerial(SerialSource* first, SerialSource* second);
    // The command line is set and open.
    bool IsOpen() const;

    // Sends one frame and waits at most timeoutMs (0: the default) for its reply. 0 or the
    // device's status (1..255) with `reply` = the reply's 8-byte header and payload, without the
    // CRC; -1 not open or the write failed, -2 the line hung up before a complete reply, -3 no
    // complete valid reply in time. A reply carrying another code is a late one to an earlier
    // request: it is dropped (StaleReplies) and the wait goes on. Several threads may call; one
    // request is on the line at a time.
    int QueryCommand(uint8_t code, const u8Array_t& payload, u8Array_t& reply, uint32_t timeoutMs);

    // The Wren's serial commands; the time-out is the client's (SetReceiveTimeout).
    int WrenSetStandby(bool standby);         // 0x01
    int WrenSetSpinRate(unsigned char rate);  // 0x02
    int WrenSetReturnMode(bool mode);         // 0x03
    // 0x04: reply = the payload, byte 0 the state, then little-endian 16-bit fault codes.
    int GetLidarFaultState(u8Array_t& reply);
    // 0x05: begin (phase 0, mode, 4-byte size), data chunks of 1 KiB (phase 1, 4-byte offset),
    // end (phase 2, CRC-32 of the package). progress = acknowledged bytes >> 10 after every
    // chunk. A mode outside 0..255 or a package over 4 GiB - 1 is -1, nothing sent.
    int UpgradeLidar(u8Array_t package, int mode, ProgressCounter& progress);

    // The typed operations' reply time-out in ms (0: the default, 3000).
    void SetReceiveTimeout(uint32_t timeoutMs);
    int GetLastReturnCode() const { return lastReturnCode_.load(); }
    // Late replies to earlier requests dropped while waiting for a reply, since the client was
    // made.
    uint64_t StaleReplies() const { return staleReplies_.load(); }
    std::string LastError() const;
    // Point-cloud bytes drained from the second line (0 without one).
    uint64_t PointCloudBytes() const;

    // One line per frame sent and received, in the byte-flow format of the VRC client, on the
    // calling thread. Replaces any earlier callback.
    void SetLogCallback(LogCallback callback);

  private:
    struct Request {
        uint8_t code = 0;
        const uint8_t* head = nullptr;
        size_t headSize = 0;
        const uint8_t* body = nullptr;
        size_t bodySize = 0;
    };
    // The body of a query; the caller holds queryMutex_.
    int QueryLocked(const Request& request, u8Array_t& reply, uint32_t timeoutMs,
                    const std::function<void()>& whileWaiting);
    // Waits timeoutMs plus the time the request needs on the wire.
    int AwaitReply(SerialSource& line, uint8_t code, uint32_t timeoutMs, uint32_t onTheWireMs,
                   serial::Frame& frame);
    uint32_t ReplyOnTheWireMs(uint8_t code, int rate) const;
    int TimedOut(const SerialSource& line, uint8_t code, uint32_t timeoutMs, uint64_t stale);
    void SettleLine(SerialSource& line);
    static std::vector<uint8_t> EncodeRequest(const Request& request);
    void LogReceived(const serial::Frame& answer);
    int Setting(uint8_t code, uint8_t value);
    int Refuse(int code, const std::string& why);
    int Remember(int code);
    void Log(const std::string& line);
    bool HasLogCallback() const;

    std::mutex queryMutex_;  // one request on the line at a time
    std::atomic<SerialSource*> first_{nullptr};
    std::atomic<SerialSource*> second_{nullptr};
    serial::FrameDecoder decoder_;  // used under queryMutex_
    bool unsettled_ = false;        // under queryMutex_: the last query may have left bytes coming
    std::atomic<uint32_t> receiveTimeoutMs_{3000};
    std::atomic<int> lastReturnCode_{0};
    std::atomic<uint64_t> staleReplies_{0};
    mutable std::mutex stateMutex_;  // lastError_, logCallback_
    std::string lastError_;
    LogCallback logCallback_;
};

}  // namespace lidar
