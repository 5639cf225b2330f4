// lidarutil export, diff and apply against simulated lidars: the files, the exit statuses, the
// plan printed before writing, and refusals that leave the lidar untouched.

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <functional>
#include <memory>
#include <vector>

#include "cli_support.h"
#include "sim/lidar_simulator.h"

using testsupport::lidarutil;
using testsupport::Outcome;

namespace {

std::unique_ptr<sim::LidarSimulator> startLidar(int identity = -1) {
    sim::LidarSimulator::Options options;
    options.model = "Egret";
    options.configDir = testsupport::SourceDir() + "/Config";
    options.restartDowntimeMs = 300;
    options.identityIndex = identity;
    auto lidar = std::make_unique<sim::LidarSimulator>(options);
    std::string error;
    if (!lidar->Start(&error)) ADD_FAILURE() << error;
    return lidar;
}

Outcome on(const sim::LidarSimulator& lidar, QStringList arguments) {
    return lidarutil(QStringList{"--host", "127.0.0.1", "--port", QString::number(lidar.Port())} +
                     arguments);
}

uint64_t setRequests(const sim::LidarSimulator& lidar) {
    uint64_t count = 0;
    for (uint8_t command : {0x20, 0x21, 0x22, 0x31}) count += lidar.RequestCount(command);
    return count;
}

std::vector<uint8_t> slice(const std::vector<uint8_t>& block, size_t from, size_t count) {
    if (from + count > block.size()) return {};
    return std::vector<uint8_t>(block.begin() + static_cast<long>(from),
                                block.begin() + static_cast<long>(from + count));
}

QByteArray readAll(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

}  // namespace

TEST(ProfileCommands, ExportDiffApplyBringOneLidarToAnother) {
    auto source = startLidar(1);
    auto target = startLidar(2);
    source->WriteBlock(0x30, {}, 0, {0x04, 0xB0});      // spin rate 1200
    source->WriteBlock(0x08, {}, 4, {255, 255, 0, 0});  // netmask 255.255.0.0
    source->WriteBlock(0x08, {}, 16, {0x0B, 0xB8});     // data port 3000
    testsupport::TempDir folder;

    const Outcome exported = on(*source, {"export", "-o", QString::fromStdString(folder.path())});
    ASSERT_EQ(exported.exitCode, 0) << exported.err.toStdString();
    const QString file = QDir(QString::fromStdString(folder.path())).filePath("EG2411050001.json");
    EXPECT_EQ(exported.out.trimmed(), file);
    const QJsonObject json = QJsonDocument::fromJson(readAll(file)).object();
    EXPECT_EQ(json["identity"].toObject()["serial_number"].toString(), "EG2411050001");

    const Outcome differs = on(*target, {"diff", file});
    EXPECT_EQ(differs.exitCode, 3) << differs.err.toStdString();
    EXPECT_TRUE(differs.out.contains("Spin Rate: 600 (600 rpm) -> 1200 (1200 rpm)"))
        << differs.out.toStdString();
    EXPECT_TRUE(differs.out.contains("Data Port: 2368 -> 3000"));
    // The network command comes last, as it is written.
    EXPECT_GT(differs.out.indexOf("0x21 ("), differs.out.indexOf("0x31 ("));

    const Outcome planned = on(*target, {"apply", "--dry-run", file});
    EXPECT_EQ(planned.exitCode, 0);
    EXPECT_TRUE(planned.out.startsWith("would write:")) << planned.out.toStdString();
    EXPECT_EQ(setRequests(*target), 0u);

    const Outcome applied = on(*target, {"apply", file});
    EXPECT_EQ(applied.exitCode, 4) << applied.err.toStdString();
    EXPECT_TRUE(applied.err.contains("not verified")) << applied.err.toStdString();
    EXPECT_EQ(target->Block(0x30), source->Block(0x30));
    EXPECT_EQ(slice(target->Block(0x08), 4, 4), slice(source->Block(0x08), 4, 4));

    const Outcome same = on(*target, {"diff", file});
    EXPECT_EQ(same.exitCode, 0) << same.out.toStdString();
    EXPECT_EQ(same.out, "");
    EXPECT_TRUE(same.err.contains("the lidar matches " + file)) << same.err.toStdString();
    const Outcome nothing = on(*target, {"apply", file});
    EXPECT_EQ(nothing.exitCode, 0);
    EXPECT_TRUE(nothing.err.contains("already matches"));

    // With --restart the network settings are verified after the lidar restarts.
    target->WriteBlock(0x08, {}, 8, {10, 0, 0, 1});  // another gateway
    const uint64_t restarts = target->RequestCount(0x10);
    const Outcome restarted = on(*target, {"apply", "--restart", file});
    EXPECT_EQ(restarted.exitCode, 0) << restarted.err.toStdString();
    EXPECT_EQ(target->RequestCount(0x10), restarts + 1);
    EXPECT_TRUE(restarted.err.contains("after its restart"));
    EXPECT_EQ(slice(target->Block(0x08), 8, 4), slice(source->Block(0x08), 8, 4));
}

TEST(ProfileCommands, AProfileTheLidarCannotTakeIsRefusedBeforeConnecting) {
    auto lidar = startLidar();
    testsupport::TempDir folder;
    const QString good = QString::fromStdString(folder.file("good.json"));
    ASSERT_EQ(on(*lidar, {"export", "Operation", "-o", good}).exitCode, 0);
    QJsonObject json = QJsonDocument::fromJson(readAll(good)).object();

    const auto applyEdited = [&](const std::function<void(QJsonObject&)>& edit) {
        QJsonObject edited = json;
        edit(edited);
        const QString path = QString::fromStdString(folder.file("edited.json"));
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(QJsonDocument(edited).toJson());
        file.close();
        return on(*lidar, {"apply", path});
    };
    const int connectionsBefore = lidar->ConnectionCount();
    const Outcome outOfRange = applyEdited([](QJsonObject& p) {
        QJsonArray settings = p["settings"].toArray();
        QJsonObject first = settings[0].toObject();  // Spin Rate
        first["bytes"] = "0384";
        settings[0] = first;
        p["settings"] = settings;
    });
    EXPECT_EQ(outOfRange.exitCode, 2);
    EXPECT_TRUE(outOfRange.err.contains("settings[0].bytes: Spin Rate takes 300, 600, 1200"))
        << outOfRange.err.toStdString();
    EXPECT_TRUE(outOfRange.err.contains("nothing was written"));

    const Outcome otherModel = applyEdited([](QJsonObject& p) { p["model"] = "Tern"; });
    EXPECT_EQ(otherModel.exitCode, 2);
    EXPECT_TRUE(otherModel.err.contains("model: the profile is for Tern, the lidar is Egret"));

    // diff holds a profile to the same checks before it reads the lidar.
    const Outcome diffBad =
        on(*lidar, {"diff", QString::fromStdString(folder.file("edited.json"))});
    EXPECT_EQ(diffBad.exitCode, 2) << diffBad.err.toStdString();
    EXPECT_TRUE(diffBad.err.contains("model: the profile is for Tern"));

    const Outcome notAProfile = applyEdited([](QJsonObject& p) { p["version"] = 9; });
    EXPECT_EQ(notAProfile.exitCode, 2);
    EXPECT_TRUE(notAProfile.err.contains("edited.json: version")) << notAProfile.err.toStdString();
    EXPECT_EQ(lidar->ConnectionCount(), connectionsBefore);
    EXPECT_EQ(setRequests(*lidar), 0u);

    const Outcome diffOther = on(*lidar, {"--model", "Plover", "diff", good});
    EXPECT_EQ(diffOther.exitCode, 2);
    EXPECT_TRUE(diffOther.err.contains("model: the profile is for Egret, the lidar is Plover"))
        << diffOther.err.toStdString();
    EXPECT_EQ(lidar->ConnectionCount(), connectionsBefore);
    const Outcome unknownExclusion = on(*lidar, {"export", "--exclude", "Warp Drive"});
    EXPECT_EQ(unknownExclusion.exitCode, 2);
    EXPECT_TRUE(unknownExclusion.err.contains("Warp Drive"));
}

TEST(ProfileCommands, WritesThatDoNotHoldAndUnverifiedWritesAreNeverReportedAsVerified) {
    auto lidar = startLidar();
    testsupport::TempDir folder;
    const QString file = QString::fromStdString(folder.file("p.json"));
    ASSERT_EQ(on(*lidar, {"export", "Operation", "-o", file}).exitCode, 0);
    lidar->WriteBlock(0x30, {}, 0, {0x04, 0xB0});  // the lidar now spins at 1200 rpm

    const Outcome unverified = on(*lidar, {"apply", "--no-verify", file});
    EXPECT_EQ(unverified.exitCode, 4) << unverified.err.toStdString();
    EXPECT_TRUE(unverified.err.contains("written: 0x31; not verified (--no-verify)"));
    EXPECT_EQ(lidar->Block(0x30).at(1), 0x58);

    // A lidar that acknowledges the command but keeps its value: the read-back says so.
    lidar->WriteBlock(0x30, {}, 0, {0x04, 0xB0});
    sim::Fault ignored;
    ASSERT_TRUE(sim::Fault::Parse("status=0", ignored));
    lidar->SetFault(0x31, ignored);
    const Outcome held = on(*lidar, {"apply", file});
    EXPECT_EQ(held.exitCode, 1) << held.err.toStdString();
    EXPECT_TRUE(held.err.contains("still differs")) << held.err.toStdString();
    EXPECT_TRUE(held.out.contains("still differs:\n0x31 (Operation / Scan):\n  Spin Rate: 1200"))
        << held.out.toStdString();

    // A lidar that refuses it: the command is named, and what went before it.
    ASSERT_TRUE(sim::Fault::Parse("status=4", ignored));
    lidar->SetFault(0x31, ignored);
    const Outcome refused = on(*lidar, {"apply", file});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_TRUE(refused.err.contains("writing 0x31 failed")) << refused.err.toStdString();
    EXPECT_TRUE(refused.err.contains("nothing was written before it"));
}

TEST(ProfileCommands, TheSerialLinesModelTakesAProfileToo) {
    testsupport::TempDir folder;
    const QString file = QString::fromStdString(folder.file("wren.json"));
    // Each run has its own simulated lidar at its defaults: export, then ask for another mode.
    ASSERT_EQ(lidarutil({"--model", "Wren", "export", "-o", file}).exitCode, 0);
    QFile edited(file);
    ASSERT_TRUE(edited.open(QIODevice::ReadOnly));
    QByteArray text = edited.readAll();
    edited.close();
    const int at = text.indexOf("\"return_mode\"");
    ASSERT_GT(at, 0);
    const int bytes = text.indexOf("\"bytes\": \"00\"", at);
    ASSERT_GT(bytes, at);
    text.replace(bytes, 13, "\"bytes\": \"01\"");
    ASSERT_TRUE(edited.open(QIODevice::WriteOnly | QIODevice::Truncate));
    edited.write(text);
    edited.close();
    const Outcome applied = lidarutil({"--model", "Wren", "apply", file});
    EXPECT_EQ(applied.exitCode, 0) << applied.err.toStdString();
    EXPECT_TRUE(applied.out.contains("Return Mode: 0")) << applied.out.toStdString();
    EXPECT_TRUE(applied.err.contains("verified: the lidar holds the profile's bytes (0x03"))
        << applied.err.toStdString();
}

TEST(ProfileCommands, FilesAndNamesThatCannotBeUsedAreRefusedBeforeTheLidarIsAsked) {
    auto lidar = startLidar();
    const int connections = lidar->ConnectionCount();
    const Outcome device = on(*lidar, {"export", "-o", "/dev/null"});
    EXPECT_EQ(device.exitCode, 2);
    EXPECT_TRUE(device.err.contains("/dev/null is not a regular file"));
    const Outcome folder = on(*lidar, {"export", "-o", "/nonexistent-folder/p.json"});
    EXPECT_EQ(folder.exitCode, 2);
    EXPECT_TRUE(folder.err.contains("no folder /nonexistent-folder")) << folder.err.toStdString();
    const Outcome fov = on(*lidar, {"export", "--exclude", "Region 1 Start"});
    EXPECT_EQ(fov.exitCode, 2);
    EXPECT_TRUE(fov.err.contains("the field of view is taken whole"));
    const Outcome readOnly = on(*lidar, {"export", "--exclude", "Serial Number"});
    EXPECT_EQ(readOnly.exitCode, 2);
    EXPECT_EQ(on(*lidar, {"export", "--all", "--exclude", "Serial Number"}).exitCode, 0);
    EXPECT_EQ(lidar->ConnectionCount(), connections + 1);
}

TEST(ProfileCommands, AProfileOnStandardOutputReadsBackAndAChangeFinerThanItsTextShowsItsBytes) {
    sim::LidarSimulator::Options options;
    options.model = "Tern";
    options.configDir = testsupport::SourceDir() + "/Config";
    sim::LidarSimulator lidar(options);
    ASSERT_TRUE(lidar.Start());
    const Outcome exported = on(lidar, {"--model", "Tern", "export", "Scan Settings"});
    ASSERT_EQ(exported.exitCode, 0) << exported.err.toStdString();
    const QJsonObject json = QJsonDocument::fromJson(exported.out.toUtf8()).object();
    EXPECT_EQ(json["model"].toString(), "Tern");
    EXPECT_FALSE(json["settings"].toArray().isEmpty());
    testsupport::TempDir folder;
    const QString file = QString::fromStdString(folder.file("tern.json"));
    testsupport::WriteFile(file.toStdString(), exported.out.toStdString());

    // The mounting pitch (a float32 at 0x32's byte 7) moves by its last bit: 0.50 both ways.
    const std::vector<uint8_t> pitch = slice(lidar.Block(0x32), 7, 4);
    ASSERT_EQ(pitch.size(), 4u);
    std::vector<uint8_t> nudged = pitch;
    nudged[3] ^= 1;
    lidar.WriteBlock(0x32, {}, 7, nudged);
    const Outcome differs = on(lidar, {"--model", "Tern", "diff", file});
    EXPECT_EQ(differs.exitCode, 3);
    const auto hex = [](const std::vector<uint8_t>& bytes) {
        return QString(QByteArray(reinterpret_cast<const char*>(bytes.data()), 4).toHex());
    };
    EXPECT_TRUE(differs.out.contains("(bytes " + hex(nudged) + " -> " + hex(pitch) + ")"))
        << differs.out.toStdString();
}
