// The serial client against the simulated Wren on two pseudo-terminals: every Wren operation,
// the transfer, raw commands, each way a reply can go wrong, and concurrent callers.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>
#include <zlib.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sdk/serial_client.h"
#include "sdk/serial_frame.h"
#include "sdk/serial_source.h"
#include "sim/serial_lidar_simulator.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;
namespace serial = lidar::serial;

void Pause(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// A device that answers as the test scripts it, on the far side of a pseudo-terminal: each
// request frame that arrives is handed to the script, which writes what it likes back.
class ScriptedDevice {
  public:
    using Script = std::function<void(const serial::Frame& request, ScriptedDevice& device)>;

    explicit ScriptedDevice(Script script) : script_(std::move(script)) {
        master_ = ::posix_openpt(O_RDWR | O_NOCTTY);
        ::grantpt(master_);
        ::unlockpt(master_);
        uart_ = std::make_unique<lidar::SerialSource>(::ptsname(master_), 9600, 3125000);
        uart_->SetCommandMode(true);
        uart_->setNeedRecv(false);
        opened_ = uart_->Open();
        client_.SetSerial(uart_.get(), nullptr);
        thread_ = std::thread([this] { Serve(); });
    }
    ~ScriptedDevice() {
        stop_.store(true);
        thread_.join();
        uart_->Close();
        ::close(master_);
    }
    bool opened() const { return opened_; }
    lidar::SerialClient& client() { return client_; }
    const std::string& path() const { return uart_->Device(); }
    void Write(const Bytes& bytes) {
        [[maybe_unused]] const ssize_t written = ::write(master_, bytes.data(), bytes.size());
    }

  private:
    void Serve() {
        serial::FrameDecoder decoder;
        uint8_t buffer[4096];
        while (!stop_.load()) {
            pollfd fd{master_, POLLIN, 0};
            if (::poll(&fd, 1, 20) <= 0 || (fd.revents & POLLIN) == 0) continue;
            const ssize_t got = ::read(master_, buffer, sizeof buffer);
            if (got <= 0) continue;
            decoder.Feed(buffer, static_cast<size_t>(got));
            serial::Frame request;
            while (decoder.Next(request)) script_(request, *this);
        }
    }

    Script script_;
    int master_ = -1;
    std::unique_ptr<lidar::SerialSource> uart_;
    bool opened_ = false;
    lidar::SerialClient client_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

TEST(SerialClientLine, LateRepliesAreDroppedAndTheRightOneIsWaitedFor) {
    // Every request is answered first with a late reply to an earlier one (0x01), then with its
    // own; 0x03 gets only the late one. 0x02's late reply is a long catalogue block (0x09) whose
    // bytes happen to hold a refusal of 0x02: taken whole, it hides nothing.
    ScriptedDevice device([](const serial::Frame& request, ScriptedDevice& line) {
        if (request.code == 0x02) {
            Bytes block(100, 0x5A);
            const Bytes inside = serial::EncodeFrame(0x02, 7, {});
            block.insert(block.begin() + 50, inside.begin(), inside.end());
            line.Write(serial::EncodeFrame(0x09, 0, block));
            line.Write(serial::EncodeFrame(0x02, 0, {}));
            return;
        }
        line.Write(serial::EncodeFrame(0x01, 0, {}));
        if (request.code != 0x03) line.Write(serial::EncodeFrame(request.code, 0, {7}));
    });
    ASSERT_TRUE(device.opened());
    lidar::SerialClient& client = device.client();
    Bytes reply;
    EXPECT_EQ(client.QueryCommand(0x09, {}, reply, 1000), 0) << client.LastError();
    EXPECT_EQ(reply, (Bytes{0xA5, 0x5A, 0x09, 0, 0, 0, 0, 1, 7}));
    EXPECT_EQ(client.StaleReplies(), 1u);
    EXPECT_EQ(client.WrenSetSpinRate(5), 0) << client.LastError();
    EXPECT_EQ(client.StaleReplies(), 2u);
    EXPECT_EQ(client.QueryCommand(0x03, {1}, reply, 300), lidar::kVrcTimeout);
    EXPECT_EQ(client.LastError(),
              "no complete valid reply to 0x03 within 300 ms (1 late reply(ies) to earlier "
              "requests dropped)");
    EXPECT_EQ(client.StaleReplies(), 3u);
}

TEST(SerialClientLine, ALongReplyAtTheUartRateHasItsOwnTimeOnTheWire) {
    // 1200 payload bytes take 1.26 s at 9600 baud; they come in pieces, as a slow line brings
    // them, well after the 300 ms the client waits for a reply to begin.
    const Bytes payload(1200, 0x33);
    ScriptedDevice device([&payload](const serial::Frame&, ScriptedDevice& line) {
        const Bytes frame = serial::EncodeFrame(0x09, 0, payload);
        for (size_t at = 0; at < frame.size(); at += 100) {
            line.Write(Bytes(frame.begin() + at, frame.begin() + std::min(at + 100, frame.size())));
            Pause(80);
        }
    });
    ASSERT_TRUE(device.opened());
    Bytes reply;
    ASSERT_EQ(device.client().QueryCommand(0x09, {}, reply, 300), 0) << device.client().LastError();
    EXPECT_EQ(reply.size(), 8u + payload.size());
}

TEST(SerialClientLine, FalseStartMarkersDoNotSwallowTheReply) {
    // Noise that looks like the start of a frame of the code asked, then the real reply.
    ScriptedDevice device([](const serial::Frame& request, ScriptedDevice& line) {
        line.Write(serial::EncodeHeader(request.code, 0, 1000));
        line.Write(serial::EncodeFrame(request.code, 0, request.code == 0x04 ? Bytes{2} : Bytes{}));
        if (request.code != 0x01) return;
        for (int i = 0; i < 30; ++i) {  // the line stays busy: it never goes quiet
            Pause(50);
            line.Write({0x00});
        }
    });
    ASSERT_TRUE(device.opened());
    lidar::SerialClient& client = device.client();
    // A setting's reply is empty: a header announcing a payload cannot be its reply, at once,
    // busy line or not.
    Bytes reply;
    EXPECT_EQ(client.QueryCommand(0x01, {1}, reply, 150), 0) << client.LastError();
    // A reply that may be long: the frame begun is given up when the line goes quiet.
    Bytes state;
    EXPECT_EQ(client.GetLidarFaultState(state), 0) << client.LastError();
    EXPECT_EQ(state, Bytes{2});
}

TEST(SerialClientLine, OnlyBytesOutsideEveryFrameAreNamedAsSwappedLines) {
    // The lines swapped: what comes back on the UART line is a stream that holds no frame. A
    // long reply with a bad CRC is a damaged frame, whatever its length, not a swapped line.
    ScriptedDevice device([](const serial::Frame& request, ScriptedDevice& line) {
        if (request.code == 0x01) {
            line.Write(Bytes(500, 0x11));
            return;
        }
        Bytes damaged = serial::EncodeFrame(request.code, 0, Bytes(200, 0x11));
        damaged.back() ^= 0xFF;
        line.Write(damaged);
    });
    ASSERT_TRUE(device.opened());
    lidar::SerialClient& client = device.client();
    Bytes reply;
    EXPECT_EQ(client.QueryCommand(0x01, {1}, reply, 300), lidar::kVrcTimeout);
    EXPECT_EQ(client.LastError(),
              "no complete valid reply to 0x01 within 300 ms: 500 bytes that "
              "were not a reply arrived on " +
                  device.path() + ", the UART line: are the two lines swapped?");
    EXPECT_EQ(client.QueryCommand(0x04, {}, reply, 300), lidar::kVrcTimeout);
    EXPECT_EQ(client.LastError(),
              "no complete valid reply to 0x04 within 300 ms (1 damaged frame(s) dropped)");
}

TEST(SerialClientLine, AfterATimeOutTheLineRunsOutBeforeTheNextRequest) {
    // The first request's reply comes late, after a while of noise; the second is answered at
    // once. A client that did not let the line run out would take the late reply for the
    // second's.
    std::atomic<int> requests{0};
    ScriptedDevice device([&requests](const serial::Frame& request, ScriptedDevice& line) {
        if (requests.fetch_add(1) == 0) {
            for (int i = 0; i < 8; ++i) {
                Pause(50);
                line.Write({0x00});
            }
            line.Write(serial::EncodeFrame(request.code, 0, {1}));
            return;
        }
        line.Write(serial::EncodeFrame(request.code, 0, {0}));
    });
    ASSERT_TRUE(device.opened());
    lidar::SerialClient& client = device.client();
    client.SetReceiveTimeout(200);
    Bytes state;
    EXPECT_EQ(client.GetLidarFaultState(state), lidar::kVrcTimeout);
    EXPECT_EQ(client.GetLidarFaultState(state), 0) << client.LastError();
    EXPECT_EQ(state, Bytes{0});
}

class SerialClientDevice : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::SerialLidarSimulator::Options options;
        options.configDir = testsupport::SourceDir() + "/Config";
        sim_ = std::make_unique<sim::SerialLidarSimulator>(options);
        std::string error;
        ASSERT_TRUE(sim_->Start(&error)) << error;
        // As the manager connects: RS485 a data line, UART a command line read by the client.
        rs485_ = std::make_unique<lidar::SerialSource>(sim_->Rs485Path(), 115200, 3000000);
        rs485_->SetCommandMode(false);
        ASSERT_TRUE(rs485_->Open()) << rs485_->LastError();
        uart_ = std::make_unique<lidar::SerialSource>(sim_->UartPath(), 9600, 3125000);
        uart_->SetCommandMode(true);
        uart_->setNeedRecv(false);
        ASSERT_TRUE(uart_->Open()) << uart_->LastError();
        client_.SetSerial(uart_.get(), rs485_.get());
        client_.SetReceiveTimeout(2000);
    }

    void SetFault(uint8_t code, const std::string& text) {
        sim::Fault fault;
        ASSERT_TRUE(sim::Fault::Parse(text, fault)) << text;
        sim_->SetFault(code, fault);
    }

    std::unique_ptr<sim::SerialLidarSimulator> sim_;
    std::unique_ptr<lidar::SerialSource> rs485_;
    std::unique_ptr<lidar::SerialSource> uart_;
    lidar::SerialClient client_;
};

TEST_F(SerialClientDevice, WrenOperationsChangeTheDeviceAndItsCatalogueBlock) {
    std::vector<std::string> lines;
    std::mutex linesMutex;
    client_.SetLogCallback([&](const std::string& line) {
        std::lock_guard<std::mutex> lock(linesMutex);
        lines.push_back(line);
    });
    ASSERT_EQ(client_.WrenSetStandby(true), 0) << client_.LastError();
    ASSERT_EQ(client_.WrenSetSpinRate(20), 0);
    ASSERT_EQ(client_.WrenSetReturnMode(true), 0);
    sim::SerialState state = sim_->GetState();
    EXPECT_EQ(state.standby, 1);
    EXPECT_EQ(state.spinRate, 20);
    EXPECT_EQ(state.returnMode, 1);
    // The catalogue's 0x09 block, which a raw get reads, holds the same values.
    EXPECT_EQ(sim_->Block(0x09), (Bytes{1, 20, 1}));
    Bytes reply;
    ASSERT_EQ(client_.QueryCommand(0x09, {}, reply, 0), 0);
    EXPECT_EQ(reply, (Bytes{0xA5, 0x5A, 0x09, 0, 0, 0, 0, 3, 1, 20, 1}));
    ASSERT_EQ(client_.WrenSetStandby(false), 0);
    EXPECT_EQ(sim_->GetState().standby, 0);

    {
        std::lock_guard<std::mutex> lock(linesMutex);
        ASSERT_GE(lines.size(), 2u);
        const Bytes sent = lidar::serial::EncodeFrame(0x01, 0, {1});
        char crc[8];
        std::snprintf(crc, sizeof crc, "%02X %02X", sent[9], sent[10]);
        EXPECT_EQ(lines[0], std::string("SEND 0x01 [11] A5 5A 01 00 00 00 00 01 01 ") + crc);
        EXPECT_EQ(lines[1].rfind("RECV 0x01 [10] A5 5A 01 00 00 00 00 00 ", 0), 0u) << lines[1];
    }

    // A flag the device does not know is refused with its status; nothing changes.
    EXPECT_EQ(client_.QueryCommand(0x01, {2}, reply, 0), 1);
    EXPECT_EQ(client_.GetLastReturnCode(), 1);
    EXPECT_EQ(reply.size(), 8u);
    EXPECT_EQ(sim_->GetState().standby, 0);
    // A code the device does not know: status 2 in a well-formed reply.
    EXPECT_EQ(client_.QueryCommand(0x7E, {1, 2, 3}, reply, 0), 2);
    EXPECT_EQ(reply, (Bytes{0xA5, 0x5A, 0x7E, 2, 0, 0, 0, 0}));
    // The RS485 line's trickle is drained and counted meanwhile.
    EXPECT_TRUE(testsupport::WaitFor([&] { return client_.PointCloudBytes() >= 256; }));
}

TEST_F(SerialClientDevice, FaultStateCarriesItsCodes) {
    Bytes reply{9};
    ASSERT_EQ(client_.GetLidarFaultState(reply), 0);
    EXPECT_EQ(reply, Bytes{0});
    sim_->SetFaultState(1, {0x00A1, 0x1234});
    ASSERT_EQ(client_.GetLidarFaultState(reply), 0);
    EXPECT_EQ(reply, (Bytes{1, 0xA1, 0x00, 0x34, 0x12}));
}

TEST_F(SerialClientDevice, UpgradeIsReceivedExactly) {
    Bytes package(5 * 1024 + 300);
    for (size_t i = 0; i < package.size(); ++i) package[i] = static_cast<uint8_t>(i * 31 + i / 7);
    lidar::ProgressCounter progress{42};
    std::vector<int> seen;
    std::mutex seenMutex;
    client_.SetLogCallback([&](const std::string&) {
        std::lock_guard<std::mutex> lock(seenMutex);
        seen.push_back(progress.load());
    });
    ASSERT_EQ(client_.UpgradeLidar(package, 3, progress), 0) << client_.LastError();
    EXPECT_EQ(progress.load(), static_cast<int>(package.size() >> 10));
    const std::vector<sim::Transfer> transfers = sim_->Transfers();
    ASSERT_EQ(transfers.size(), 1u);
    EXPECT_EQ(transfers[0].command, 0x05);
    EXPECT_EQ(transfers[0].beginByte, 3);
    EXPECT_EQ(transfers[0].announcedSize, package.size());
    EXPECT_EQ(transfers[0].receivedSize, package.size());
    EXPECT_EQ(transfers[0].chunks, 6);
    EXPECT_EQ(transfers[0].receivedCrc,
              crc32(0, package.data(), static_cast<uInt>(package.size())));
    EXPECT_TRUE(transfers[0].completed);
    {
        // Begin, six chunks, end: a line out and back each; progress climbs chunk by chunk.
        std::lock_guard<std::mutex> lock(seenMutex);
        ASSERT_EQ(seen.size(), 16u);
        EXPECT_EQ(seen[4], 1);
    }

    EXPECT_EQ(client_.UpgradeLidar(package, 256, progress), lidar::kVrcNotConnected);
    EXPECT_EQ(sim_->Transfers().size(), 1u);  // nothing sent
    SetFault(0x05, "status=4");
    EXPECT_EQ(client_.UpgradeLidar(package, 0, progress), 4);
    EXPECT_EQ(client_.UpgradeLidar(package, 255, progress), 4);  // the byte's ends reach the lidar
    EXPECT_EQ(progress.load(), 0);
}

TEST_F(SerialClientDevice, EachBrokenReplyEndsWithItsCodeAndTheLineRecovers) {
    Bytes reply;
    SetFault(0x04, "garbage-before-reply");
    EXPECT_EQ(client_.GetLidarFaultState(reply), 0) << client_.LastError();
    EXPECT_EQ(reply, Bytes{0});

    struct Case {
        const char* fault;
        int expected;
    };
    for (const Case& c : {Case{"bad-crc", lidar::kVrcTimeout}, Case{"no-reply", lidar::kVrcTimeout},
                          Case{"status=5", 5}}) {
        SCOPED_TRACE(c.fault);
        SetFault(0x04, c.fault);
        reply = {7};
        const auto started = std::chrono::steady_clock::now();
        EXPECT_EQ(client_.QueryCommand(0x04, {}, reply, 300), c.expected);
        EXPECT_EQ(reply.empty(), c.expected < 0);  // never the reply of an earlier request
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(3));
        EXPECT_EQ(client_.GetLastReturnCode(), c.expected);
        if (c.expected == lidar::kVrcTimeout) {
            const std::string why = c.fault == std::string("bad-crc")
                                        ? "no complete valid reply to 0x04 within 300 ms (1 "
                                          "damaged frame(s) dropped)"
                                        : "no complete valid reply to 0x04 within 300 ms";
            EXPECT_EQ(client_.LastError(), why);
        }
        EXPECT_TRUE(uart_->IsOpen());
        // The line stays usable: the next request gets its own reply.
        sim_->ClearFaults();
        EXPECT_EQ(client_.WrenSetSpinRate(5), 0) << client_.LastError();
    }

    // Half a reply, then the line hangs up: -2, the source is no longer open, and -1 follows
    // until the manager opens the line again.
    SetFault(0x04, "close-mid-reply");
    EXPECT_EQ(client_.GetLidarFaultState(reply), lidar::kVrcClosedByPeer);
    EXPECT_FALSE(uart_->IsOpen());
    EXPECT_FALSE(client_.IsOpen());
    EXPECT_EQ(client_.WrenSetSpinRate(10), lidar::kVrcNotConnected);
    sim_->ClearFaults();
    uart_ = std::make_unique<lidar::SerialSource>(sim_->UartPath(), 9600, 3125000);
    uart_->SetCommandMode(true);
    uart_->setNeedRecv(false);
    ASSERT_TRUE(uart_->Open()) << uart_->LastError();
    client_.SetSerial(uart_.get(), rs485_.get());
    EXPECT_EQ(client_.WrenSetSpinRate(10), 0) << client_.LastError();
    EXPECT_EQ(sim_->GetState().spinRate, 10);
}

TEST_F(SerialClientDevice, ClosingAndReopeningTheLineIsServedAgain) {
    for (int round = 0; round < 3; ++round) {
        uart_->Close();
        EXPECT_EQ(client_.WrenSetStandby(true), lidar::kVrcNotConnected);
        ASSERT_TRUE(uart_->Open()) << uart_->LastError();
        EXPECT_EQ(client_.WrenSetStandby(round % 2 == 0), 0) << client_.LastError();
    }
    EXPECT_EQ(sim_->RequestCount(0x01), 3u);
}

TEST_F(SerialClientDevice, TwoThreadsQueryOneClientAtOnce) {
    constexpr int kQueries = 30;
    int failures[2] = {0, 0};
    std::thread setter([&] {
        for (int i = 0; i < kQueries; ++i) {
            if (client_.WrenSetSpinRate(static_cast<unsigned char>(5 + i % 3)) != 0) ++failures[0];
        }
    });
    std::thread reader([&] {
        for (int i = 0; i < kQueries; ++i) {
            Bytes reply;
            if (client_.GetLidarFaultState(reply) != 0 || reply != Bytes{0}) ++failures[1];
        }
    });
    setter.join();
    reader.join();
    EXPECT_EQ(failures[0], 0);
    EXPECT_EQ(failures[1], 0);
    EXPECT_EQ(sim_->RequestCount(0x02), uint64_t{kQueries});
    EXPECT_EQ(sim_->RequestCount(0x04), uint64_t{kQueries});
}

}  // namespace
