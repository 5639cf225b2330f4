// The Heron OTA package: the manager's parser and extraction on packages built by the package
// code or described header field by header field, with the log line each refusal writes.

#include <gtest/gtest.h>
#include <zlib.h>

#include <QSignalSpy>
#include <QUrl>

#include "heron_ota_package.h"
#include "lidar_utilities_manager.h"
#include "test_support.h"

using testsupport::SpyTexts;

namespace {

u8Array_t Bytes(size_t size, uint8_t seed) {
    u8Array_t bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(seed + i * 7 + (i >> 8));
    return bytes;
}

// A header describing `info`, then `dataSize` bytes of data region.
u8Array_t Described(const HeronOtaPackageInfo& info, size_t dataSize) {
    u8Array_t package = heron_ota::EncodeHeader(info);
    package.resize(package.size() + dataSize, 0xA5);
    return package;
}

HeronOtaComponentInfo At(uint32_t offset, uint32_t size) {
    return {offset, size, true};
}

class HeronOtaPackageTest : public ::testing::Test {
  protected:
    // The parse's outcome and the log lines it wrote ("TEXT|LEVEL").
    bool Parse(const u8Array_t& package) {
        log_.clear();
        return manager_.HeronParseOtaPackageHeader(package, info_);
    }
    std::vector<std::string> Logged() const { return SpyTexts(log_); }

    LidarUtilitiesManager manager_{0, ""};
    QSignalSpy log_{&manager_, &LidarUtilitiesManager::sendLogMessage};
    HeronOtaPackageInfo info_;
};

TEST_F(HeronOtaPackageTest, HeaderChecksComeInTheirOrder) {
    HeronOtaPackageInfo info;
    info.flags = 0x01;
    info.bmb_app_a = At(0, 1);
    u8Array_t package = Described(info, 0);  // exactly the 56 header bytes
    ASSERT_EQ(package.size(), 56u);

    EXPECT_FALSE(Parse(u8Array_t(package.begin(), package.begin() + 55)));
    EXPECT_TRUE(Logged().empty());  // too small: no line

    EXPECT_FALSE(Parse(package));  // a flag set, no data region: the component is not in it
    EXPECT_EQ(Logged(), std::vector<std::string>{"Component BMB_APP_A is out of file range|INFO"});
    info.bmb_app_a = At(0, 0);
    EXPECT_FALSE(Parse(Described(info, 0)));
    EXPECT_EQ(Logged(), std::vector<std::string>{"Component BMB_APP_A size is zero|INFO"});
    info.flags = 0;
    EXPECT_FALSE(Parse(Described(info, 0)));
    EXPECT_EQ(Logged(), std::vector<std::string>{"No component found in package|INFO"});

    package[3] = 'X';
    EXPECT_FALSE(Parse(package));
    EXPECT_EQ(Logged(), std::vector<std::string>{"Invalid OTA package magic|INFO"});

    info.flags = 32;
    EXPECT_FALSE(Parse(Described(info, 16)));
    EXPECT_EQ(Logged(), std::vector<std::string>{"Invalid OTA component flags|INFO"});
    // 31 passes the flags check; every component then needs a size.
    info.flags = 31;
    EXPECT_FALSE(Parse(Described(info, 16)));
    EXPECT_EQ(Logged(), std::vector<std::string>{"Component BMB_APP_A size is zero|INFO"});
}

TEST_F(HeronOtaPackageTest, RangesAreCheckedWithoutWrappingAndMayTouchButNotOverlap) {
    const size_t data = 64;
    const auto one = [&](HeronOtaComponentInfo tmbParam) {
        HeronOtaPackageInfo info;
        info.flags = 0x10;
        info.tmb_param = tmbParam;
        return Parse(Described(info, data));
    };
    EXPECT_FALSE(one(At(64, 0)));
    EXPECT_EQ(Logged(), std::vector<std::string>{"Component TMB_PARAM size is zero|INFO"});
    EXPECT_TRUE(one(At(60, 4)));
    EXPECT_TRUE(Logged().empty());
    EXPECT_EQ(info_.tmb_param.offset, 60u);
    EXPECT_EQ(info_.tmb_param.size, 4u);
    EXPECT_TRUE(info_.tmb_param.present);
    // Past the end by one byte; and offsets and sizes whose 32-bit sum wraps into the file.
    for (const HeronOtaComponentInfo& outside :
         {At(61, 4), At(0xFFFFFFFFu, 2), At(1, 0xFFFFFFFFu), At(0xFFFFFFC8u, 0x40)}) {
        EXPECT_FALSE(one(outside)) << outside.offset << "+" << outside.size;
        EXPECT_EQ(Logged(),
                  std::vector<std::string>{"Component TMB_PARAM is out of file range|INFO"});
    }

    const auto two = [&](HeronOtaComponentInfo first, HeronOtaComponentInfo second) {
        HeronOtaPackageInfo info;
        info.flags = 0x06;  // BMB_APP_B and BMB_FPGA
        info.bmb_app_b = first;
        info.bmb_fpga = second;
        return Parse(Described(info, data));
    };
    EXPECT_TRUE(two(At(0, 16), At(16, 8)));
    EXPECT_TRUE(two(At(16, 8), At(0, 16)));  // described out of order, sorted by offset
    EXPECT_FALSE(two(At(0, 17), At(16, 8)));
    EXPECT_EQ(Logged(), std::vector<std::string>{"Component overlap|INFO"});
    EXPECT_FALSE(two(At(16, 8), At(0, 17)));
    EXPECT_FALSE(two(At(8, 1), At(8, 1)));  // the same offset

    // A component whose flag is clear is not read, whatever its header fields say.
    HeronOtaPackageInfo info;
    info.flags = 0x01;
    info.bmb_app_a = At(0, 8);
    info.tmb_fpga = At(4, 8);
    ASSERT_TRUE(Parse(Described(info, data)));
    EXPECT_FALSE(info_.tmb_fpga.present);
    EXPECT_EQ(info_.tmb_fpga.offset, 0u);
    EXPECT_EQ(info_.tmb_fpga.size, 0u);
}

TEST_F(HeronOtaPackageTest, ExtractionDropsTheFpgaLeadingBlockOnlyFromLargerImages) {
    std::array<std::optional<u8Array_t>, heron_ota::kComponentCount> parts;
    parts[0] = Bytes(2048, 1);  // BMB_APP_A
    parts[2] = Bytes(1025, 3);  // BMB_FPGA
    parts[3] = Bytes(1024, 4);  // TMB_FPGA
    parts[4] = Bytes(2048, 5);  // TMB_PARAM
    u8Array_t package;
    std::string error;
    ASSERT_TRUE(heron_ota::BuildPackage(parts, package, error)) << error;
    ASSERT_TRUE(Parse(package));

    const auto extract = [&](const char* name) {
        const size_t index = *heron_ota::ComponentIndex(name);
        return manager_.HeronExtractComponentData(
            package, info_.*(heron_ota::kComponents[index].info), name);
    };
    EXPECT_EQ(extract("BMB_FPGA"), u8Array_t(parts[2]->end() - 1, parts[2]->end()));
    EXPECT_EQ(extract("TMB_FPGA"), *parts[3]);
    EXPECT_EQ(extract("TMB_PARAM"), *parts[4]);
    EXPECT_EQ(extract("BMB_APP_A"), *parts[0]);

    log_.clear();
    EXPECT_TRUE(manager_.HeronExtractComponentData(u8Array_t(55), At(0, 1), "TMB_PARAM").empty());
    EXPECT_TRUE(
        manager_.HeronExtractComponentData(package, At(0xFFFFFFFFu, 2), "BMB_FPGA").empty());
    EXPECT_TRUE(
        manager_
            .HeronExtractComponentData(package, At(1, uint32_t(package.size() - 56)), "BMB_APP_A")
            .empty());
    // At the very end of the data and empty: inside the file, so nothing is said.
    EXPECT_TRUE(
        manager_
            .HeronExtractComponentData(package, At(uint32_t(package.size() - 56), 0), "TMB_PARAM")
            .empty());
    EXPECT_EQ(Logged(), (std::vector<std::string>{"Component TMB_PARAM package too small|INFO",
                                                  "Component BMB_FPGA data out of range|INFO",
                                                  "Component BMB_APP_A data out of range|INFO"}));
}

TEST_F(HeronOtaPackageTest, BuiltPackagesOfEverySubsetParseBackToTheirComponents) {
    for (unsigned flags = 1; flags < 32; ++flags) {
        std::array<std::optional<u8Array_t>, heron_ota::kComponentCount> parts;
        for (size_t i = 0; i < parts.size(); ++i)
            if (flags & (1u << i)) parts[i] = Bytes(100 + 37 * i, static_cast<uint8_t>(i));
        u8Array_t package;
        std::string error;
        ASSERT_TRUE(heron_ota::BuildPackage(parts, package, error)) << error;
        ASSERT_TRUE(Parse(package)) << flags;
        EXPECT_EQ(info_.flags, flags);
        EXPECT_EQ(info_.total_size, package.size());
        for (size_t i = 0; i < parts.size(); ++i) {
            const heron_ota::ComponentKind& kind = heron_ota::kComponents[i];
            const HeronOtaComponentInfo& component = info_.*(kind.info);
            ASSERT_EQ(component.present, parts[i].has_value());
            if (parts[i]) {
                EXPECT_EQ(manager_.HeronExtractComponentData(package, component, kind.name),
                          *parts[i]);
            }
        }
    }
    // Little-endian fields where the format puts them: a one-byte TMB_PARAM.
    std::array<std::optional<u8Array_t>, heron_ota::kComponentCount> parts;
    parts[4] = u8Array_t{0x42};
    u8Array_t package;
    std::string error;
    ASSERT_TRUE(heron_ota::BuildPackage(parts, package, error));
    const u8Array_t expectedHeader = {'N', 'R', 'V', 'K', 57, 0, 0, 0, 0x10, 0, 0, 0};
    EXPECT_EQ(u8Array_t(package.begin(), package.begin() + 12), expectedHeader);
    EXPECT_EQ(u8Array_t(package.begin() + 44, package.end()),
              (u8Array_t{0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0x42}));

    EXPECT_FALSE(heron_ota::BuildPackage({}, package, error));
    EXPECT_EQ(error, "no component given");
    parts[1] = u8Array_t{};
    EXPECT_FALSE(heron_ota::BuildPackage(parts, package, error));
    EXPECT_EQ(error, "component BMB_APP_B is empty");
}

}  // namespace

// ---- The inspection that lidarutil's ota inspect and the window's firmware view show ----

namespace {

QString Crc(const uint8_t* bytes, size_t size) {
    return "0x" + QString::number(uint32_t(crc32(0L, bytes, uInt(size))), 16)
                      .toUpper()
                      .rightJustified(8, '0');
}

QVariantMap InspectFile(const LidarUtilitiesManager& manager, const std::string& path,
                        const u8Array_t& bytes) {
    testsupport::WriteFile(path, std::string(bytes.begin(), bytes.end()));
    return manager.HeronInspectOtaPackage(QUrl::fromLocalFile(QString::fromStdString(path)));
}

}  // namespace

TEST_F(HeronOtaPackageTest, InspectionListsWhatThePackageHoldsAndWhatIsSent) {
    const u8Array_t app = Bytes(3000, 1);
    const u8Array_t fpga = Bytes(2048, 2);
    std::array<std::optional<u8Array_t>, heron_ota::kComponentCount> parts;
    parts[1] = app;   // BMB_APP_B
    parts[3] = fpga;  // TMB_FPGA
    u8Array_t package;
    std::string error;
    ASSERT_TRUE(heron_ota::BuildPackage(parts, package, error)) << error;
    testsupport::TempDir dir;
    log_.clear();

    const QVariantMap seen = InspectFile(manager_, dir.file("two.ota"), package);
    EXPECT_TRUE(seen["valid"].toBool());
    EXPECT_EQ(seen["reason"].toString(), "");
    EXPECT_EQ(seen["bytes"].toLongLong(), qint64(package.size()));
    EXPECT_EQ(seen["totalSize"].toLongLong(), qint64(56 + 3000 + 2048));
    EXPECT_EQ(seen["flags"].toInt(), 0x0A);
    const QVariantList components = seen["components"].toList();
    ASSERT_EQ(components.size(), 2);
    const QVariantMap first = components[0].toMap();
    EXPECT_EQ(first["name"].toString(), "BMB_APP_B");
    EXPECT_EQ(first["type"].toInt(), 2);
    EXPECT_EQ(first["offset"].toLongLong(), 0);
    EXPECT_EQ(first["size"].toLongLong(), 3000);
    EXPECT_EQ(first["crc32"].toString(), Crc(app.data(), app.size()));
    EXPECT_EQ(first["sent"].toLongLong(), 3000);
    EXPECT_EQ(first["sentCrc32"].toString(), Crc(app.data(), app.size()));
    // An FPGA image is sent without its leading 1024-byte block.
    const QVariantMap second = components[1].toMap();
    EXPECT_EQ(second["name"].toString(), "TMB_FPGA");
    EXPECT_EQ(second["type"].toInt(), 0);
    EXPECT_EQ(second["offset"].toLongLong(), 3000);
    EXPECT_EQ(second["size"].toLongLong(), 2048);
    EXPECT_EQ(second["crc32"].toString(), Crc(fpga.data(), fpga.size()));
    EXPECT_EQ(second["sent"].toLongLong(), 1024);
    EXPECT_EQ(second["sentCrc32"].toString(), Crc(fpga.data() + 1024, 1024));
    EXPECT_TRUE(Logged().empty()) << "an inspection is not an upgrade: it logs nothing";
}

TEST_F(HeronOtaPackageTest, InspectionGivesTheUpgradesReasonForARefusal) {
    testsupport::TempDir dir;
    HeronOtaPackageInfo info;
    info.flags = 0x20;
    QVariantMap seen = InspectFile(manager_, dir.file("flags.ota"), Described(info, 8));
    EXPECT_FALSE(seen["valid"].toBool());
    EXPECT_EQ(seen["reason"].toString(), "Invalid OTA component flags");
    EXPECT_TRUE(seen["components"].toList().isEmpty());

    info.flags = 0x01 | 0x10;
    info.bmb_app_a = At(0, 17);
    info.tmb_param = At(16, 8);
    seen = InspectFile(manager_, dir.file("overlap.ota"), Described(info, 24));
    EXPECT_EQ(seen["reason"].toString(), "Component overlap");

    seen = InspectFile(manager_, dir.file("short.ota"), Bytes(40, 3));
    EXPECT_FALSE(seen["valid"].toBool());
    EXPECT_EQ(seen["reason"].toString(),
              "the file holds 40 bytes, fewer than the 56 of the header");

    const std::string missing = dir.file("missing.ota");
    seen = manager_.HeronInspectOtaPackage(QUrl::fromLocalFile(QString::fromStdString(missing)));
    EXPECT_FALSE(seen["valid"].toBool());
    EXPECT_EQ(seen["reason"].toString(), QString::fromStdString("cannot read " + missing));
    EXPECT_TRUE(Logged().empty());
}

TEST(HeronOtaHeaderCheck, AReusedReasonIsClearedBeforeTheCheck) {
    // The upgrade logs the reason whenever it is not empty: a package smaller than the header
    // must not carry the refusal of the package checked before it.
    HeronOtaPackageInfo info;
    std::string reason = "Invalid OTA package magic";
    EXPECT_FALSE(heron_ota::CheckHeader(Bytes(40, 1), info, reason));
    EXPECT_EQ(reason, "");
    std::string extracted = "stale";
    EXPECT_EQ(heron_ota::ExtractComponent(Bytes(60, 1), At(0, 4), "TMB_PARAM", extracted).size(),
              4u);
    EXPECT_EQ(extracted, "");
}
