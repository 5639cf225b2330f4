#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sdk/types.h"
#include "sdk/vrc_frame.h"

namespace lidar {

class SocketSource;

enum class VrcMode : uint8_t { kTcp = 0 };

// Client results (see docs/protocol.md): 0 success, 1..255 device status, negative below.
enum VrcResult : int {
    kVrcOk = 0,
    kVrcNotConnected = -1,
    kVrcClosedByPeer = -2,
    kVrcTimeout = -3,
    kVrcMalformed = -4,
    kVrcRefused = -5,
};

// A client result in words for people: the device's status (with its meaning for 1..5), or the
// client's own failure with its number ("no answer in time (result -3)").
std::string DescribeVrcResult(int code);

using LogCallback = std::function<void(const std::string&)>;

// A transfer's progress in units of 1024 acknowledged bytes. Written by the transferring thread
// while another (a UI) reads it, hence atomic.
using ProgressCounter = std::atomic<int>;

// The VRC command client over TCP. One request is on the wire at a time; QueryCommand may be
// called from several threads at once.
class VrcClient {
  public:
    // Connects at once. autoReconnect, retries, the three texts and heartbeatSeconds are accepted
    // for the device SDK's signature; see docs/protocol.md for which are used. `cancelled`, when
    // given, can abandon the connect while it waits for the lidar (see SocketSource::Connect).
    VrcClient(std::string host, uint16_t port, bool autoReconnect, VrcMode mode, uint8_t retries,
              std::string user, std::string password, std::string deviceName,
              uint32_t connectTimeoutMs, uint32_t receiveTimeoutMs, float heartbeatSeconds,
              uint16_t localPort, const std::function<bool()>& cancelled = {});
    ~VrcClient();
    VrcClient(const VrcClient&) = delete;
    VrcClient& operator=(const VrcClient&) = delete;

    bool IsOpen() const;
    void Close();
    // Why the connection failed or closed, for people ("" while nothing failed).
    std::string LastError() const;

    // Sends one command and waits for its reply. On success reply holds the 8-byte header and
    // the payload (withHeader) or the payload alone. Returns a client result code.
    int QueryCommand(const u8vec& payload, u8vec& reply, uint8_t command, bool withHeader);
    int GetLastReturnCode() const { return lastReturnCode_.load(); }
    // Lets a wrapper that answers for the client (a refusal, -5) keep the last code truthful.
    void RecordReturnCode(int code) { lastReturnCode_.store(code); }
    // For callers that find a well-framed reply unusable: closes the connection, records why and
    // the code -4, and returns -4.
    int RejectReply(uint8_t command, const std::string& why);
    // Local port of the open connection (0 when closed).
    uint16_t LocalPort() const;

    // Copies length bytes from start of output into value; false when output does not hold them.
    bool GetValFromOutput(uint8_t command, uint8_t subCommand, const u8vec& output, int start,
                          int length, u8vec& value) const;

    // Channel field of view (0x23 / 0x22): values[0..count) are start angles, values[count..2count)
    // end angles, in degrees. count is in/out: capacity of regions in (the array holds 2 * count
    // floats), regions read out; the layout follows the count out.
    int GetAllChannelFov(float* values, int& count, int& mode);
    int SetAllChannelFov(const float* values, int count, uint8_t mode);

    // Serial point-cloud baud rate used by the serial-line models (kind 2).
    void SetSerialBaudRate(uint32_t rate) { serialBaudRate_.store(rate); }
    uint32_t GetSerialBaudRate() const { return serialBaudRate_.load(); }
    int WrenSetBaudRate(uint32_t rate);  // 0xB1
    // The Wren's serial settings reached over VRC (sdk/src/vrc_client_wren.cpp). Each sends one
    // byte (0 or 1 for the two flags) and returns the client result.
    int WrenSerialSetStandby(bool standby);         // 0xB2
    int WrenSerialSetSpinRate(unsigned char rate);  // 0xB3
    int WrenSerialSetReturnMode(bool mode);         // 0xB4
    // 0xB0: the device's serial baud rate (4 bytes, big-endian); a shorter reply is -4.
    int WrenGetBaudRate(unsigned int& rate);
    // 0xB5: reply = the payload, byte 0 the state, then little-endian 16-bit fault codes; a
    // reply without the state byte is -4.
    int WrenGetLidarFaultState(u8Array_t& reply);

    // Firmware transfer with `command` (0x83 on every model): begin with the size, data chunks,
    // end with the CRC-32 of the whole package (docs/protocol.md). progress is set to 0, then
    // to the acknowledged bytes shifted right by 10 after every chunk. 0 when the device
    // accepted the end phase; otherwise the failing result (a refused chunk stops the transfer
    // with the device's status).
    int UpgradeLidar(const u8Array_t& package, uint8_t command, ProgressCounter& progress);
    // The serial-line models' transfer (0xB7): as UpgradeLidar, with the upgrade mode (0..255)
    // after the phase byte of the begin phase.
    int WrenUpgradeLidar(const u8Array_t& package, int mode, ProgressCounter& progress);
    // One log request: -1 whenever no complete reply arrived (the cause is the last return
    // code), the device's status otherwise; reply holds the reply's payload.
    int DownloadLog(const u8Array_t& payload, u8Array_t& reply, unsigned char command);
    // Serial pass-through (0xB8): the serial command code and its payload; reply holds the
    // serial reply's header and payload as the device returns them.
    int QuerySerialCommand(const u8Array_t& payload, u8Array_t& reply, uint8_t code);

    // One line per frame sent and received, with the bytes in hex ("bytes flow").
    void SetLogCallback(LogCallback callback);

    // ---- Heron-VRC operations (vrc_client_heron.cpp) ----
    // Component versions (0xC0 with the selector 0, 1, 2). The text is the reply up to its first
    // NUL byte (the device pads to its field width), so a NUL-led reply is an empty text; on a
    // failure the text is emptied.
    int HeronGetBmbFpgaVersion(std::string& version);
    int HeronGetTmbFpgaVersion(std::string& version);
    int HeronGetBmbMcuVersion(std::string& version);
    // The IMU's ranges as the device's codes (0xC1: angular code, acceleration code).
    int HeronSetIMURange(uint8_t angularCode, uint8_t accelerationCode);
    // Restarts the lidar (0xC2); the device closes the connection after its reply.
    int HeronRestartLidar();
    // Puts the lidar into upgrade mode (0xB6) and reports its running application partition
    // (0 A, any other value B). A reply without the partition byte is -4.
    int WrenSerialEnterUpgradeMode(unsigned char& partition);
    // One component of an OTA package (0xC3, the component type after the phase byte of the
    // begin phase). progress is advanced from its current value by one for every 1024 bytes the
    // device acknowledged, the component's last partial unit counted as one, so a sequence of
    // components meets a total summed per component and rounded up.
    int HeronSendComponentData(u8Array_t& data, unsigned char type, ProgressCounter& progress);

  private:
    // How a transfer writes its caller's progress counter.
    enum class ProgressMode {
        kFromZero,       // set to 0, then to the acknowledged bytes shifted right by 10
        kAdvanceByUnits  // advanced from its value by the acknowledged bytes in units, rounded up
    };
    // A request whose payload is `head` followed by `body`; the body is sent from where it lies
    // (a firmware chunk is not copied into a frame).
    struct Request {
        uint8_t command = 0;
        const uint8_t* head = nullptr;
        size_t headSize = 0;
        const uint8_t* body = nullptr;
        size_t bodySize = 0;
        // Work done once the request is on the wire, while the device handles it.
        std::function<void()> whileWaiting;
        size_t Size() const { return headSize + bodySize; }
    };
    int Transfer(uint8_t command, std::optional<uint8_t> beginExtra, const u8Array_t& package,
                 ProgressCounter& progress, ProgressMode mode = ProgressMode::kFromZero);
    // 0xC0 with one selector byte; the text up to the first NUL.
    int HeronGetComponentVersion(uint8_t selector, std::string& version);
    void Log(const std::string& line);
    bool HasLogCallback() const;
    void LogFrame(const char* direction, uint8_t command, const std::vector<uint8_t>& header,
                  const uint8_t* head, size_t headSize, const uint8_t* body, size_t bodySize);
    // Records why, closes the connection, returns code.
    int Fail(int code, const std::string& why);
    // Records why without touching the connection, returns code.
    int Refuse(int code, const std::string& why);
    void CloseSocket();
    // The body of QueryCommand; the caller holds queryMutex_.
    int QueryLocked(const u8vec& payload, u8vec& reply, uint8_t command, bool withHeader);
    int QueryLocked(const Request& request, u8vec& reply, bool withHeader);
    // One request under the query lock; its result becomes the last return code.
    int QueryOne(const Request& request, u8vec& reply);
    int AwaitReply(uint8_t command, vrc::Frame& frame);
    int Remember(int code);

    std::string host_;
    uint16_t port_;
    uint32_t receiveTimeoutMs_;
    std::unique_ptr<SocketSource> socket_;
    mutable std::mutex queryMutex_;  // one request on the wire at a time
    mutable std::mutex stateMutex_;  // socket open/close, last error, log callback
    std::string lastError_;
    LogCallback logCallback_;
    std::atomic<int> lastReturnCode_{0};
    std::atomic<bool> closedLocally_{false};
    vrc::FrameDecoder decoder_;  // used under queryMutex_; keeps its buffer from reply to reply
    std::atomic<uint32_t> serialBaudRate_{0};
};

}  // namespace lidar
