// The window's profile operations (exportProfileFile, compareProfileFile, applyProfileFile,
// verifyProfileFile) against a simulated Egret over loopback, with the files in a temporary
// folder: what each map tells must be what the file and the lidar hold.

#include <gtest/gtest.h>

#include <QUrl>
#include <QVariantList>
#include <QVariantMap>
#include <string>
#include <vector>

#include "e2e_support.h"
#include "settings_profile.h"

using testsupport::ManagerSession;
using testsupport::StartSimulator;

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint8_t kNetworkGet = 0x08;
constexpr uint8_t kFieldOfViewGet = 0x23;
constexpr size_t kDataPortOffset = 16;
constexpr size_t kGatewayOffset = 8;

QUrl urlOf(const std::string& path) {
    return QUrl::fromLocalFile(QString::fromStdString(path));
}

std::string text(const QVariant& value) {
    return value.toString().toStdString();
}

Bytes slice(const Bytes& block, size_t from, size_t count) {
    return Bytes(block.begin() + static_cast<long>(from),
                 block.begin() + static_cast<long>(from + count));
}

// The difference of that name in an outcome's "differences" (or "fieldOfView"), or an empty map.
QVariantMap rowNamed(const QVariantMap& outcome, const char* key, const QString& name) {
    for (const QVariant& row : outcome[key].toList())
        if (row.toMap()["name"].toString() == name) return row.toMap();
    return {};
}

profile::SettingsProfile readBack(const std::string& path) {
    profile::SettingsProfile read;
    QString error;
    EXPECT_TRUE(
        profile::readProfile(QByteArray::fromStdString(testsupport::ReadFile(path)), &read, &error))
        << error.toStdString();
    return read;
}

// A simulated Egret, a manager connected to it, and a folder for the files.
struct Bench {
    std::unique_ptr<sim::LidarSimulator> lidar = StartSimulator("Egret");
    ManagerSession session{"Egret"};
    testsupport::TempDir folder;

    LidarUtilitiesManager& m() { return session.m(); }
    bool connect() { return session.Connect(lidar->Port()); }
    // Exports the lidar's settings into `name`; the file's path.
    std::string exportTo(const std::string& name) {
        const std::string path = folder.file(name);
        const QVariantMap outcome = m().exportProfileFile(urlOf(path), false, false);
        EXPECT_TRUE(outcome["ok"].toBool()) << text(outcome["error"]);
        return path;
    }
    uint64_t setRequests() const {
        uint64_t count = 0;
        for (uint8_t command : {0x10, 0x20, 0x21, 0x22, 0x25, 0x31})
            count += lidar->RequestCount(command);
        return count;
    }
};

}  // namespace

TEST(ProfileFiles, ExportWritesTheSettingsAFileReaderTakesBack) {
    Bench b;
    const std::string path = b.folder.file("egret.json");
    const QVariantMap offline = b.m().exportProfileFile(urlOf(path), false, false);
    EXPECT_FALSE(offline["ok"].toBool());
    EXPECT_EQ(text(offline["error"]), "not connected to a lidar");
    EXPECT_FALSE(testsupport::FileExists(path));

    ASSERT_TRUE(b.connect());
    const QVariantMap outcome = b.m().exportProfileFile(urlOf(path), false, false);
    ASSERT_TRUE(outcome["ok"].toBool()) << text(outcome["error"]);
    EXPECT_EQ(text(outcome["path"]), path);
    const profile::SettingsProfile written = readBack(path);
    EXPECT_EQ(outcome["settings"].toInt(), written.settings.size());
    EXPECT_GT(written.settings.size(), 10);
    EXPECT_TRUE(outcome["fieldOfView"].toBool());
    EXPECT_TRUE(written.fieldOfView.has_value());
    EXPECT_EQ(outcome["recorded"].toInt(), 0);
    EXPECT_TRUE(written.excluded.contains("IP Address"));
    EXPECT_FALSE(written.time.isEmpty());
    for (const profile::ProfileEntry& entry : written.settings) EXPECT_NE(entry.name, "IP Address");

    // With the lidar's own address and the read-only values.
    const std::string all = b.folder.file("all.json");
    const QVariantMap everything = b.m().exportProfileFile(urlOf(all), true, true);
    ASSERT_TRUE(everything["ok"].toBool()) << text(everything["error"]);
    const profile::SettingsProfile full = readBack(all);
    EXPECT_EQ(full.settings.front().name, "IP Address");
    EXPECT_EQ(everything["recorded"].toInt(), full.record.size());
    EXPECT_GT(full.record.size(), 0);

    // A folder is not a file to write.
    const QVariantMap intoFolder = b.m().exportProfileFile(urlOf(b.folder.path()), false, false);
    EXPECT_FALSE(intoFolder["ok"].toBool());
    EXPECT_EQ(text(intoFolder["error"]), b.folder.path() + " is a folder; name the profile file");
}

TEST(ProfileFiles, CompareListsEachDifferingFieldWithBothValues) {
    Bench b;
    ASSERT_TRUE(b.connect());
    const std::string path = b.exportTo("egret.json");
    const QVariantMap same = b.m().compareProfileFile(urlOf(path));
    ASSERT_TRUE(same["ok"].toBool()) << text(same["error"]);
    EXPECT_TRUE(same["matches"].toBool());
    EXPECT_TRUE(same["differences"].toList().isEmpty());
    EXPECT_EQ(same["differenceCount"].toInt(), 0);

    b.lidar->WriteBlock(kNetworkGet, {}, kDataPortOffset, {0x0B, 0xB8});  // the data port, 3000
    b.lidar->WriteBlock(kFieldOfViewGet, {}, 4, {0x01, 0x2C});  // region 1 ends at 30.0 degrees
    const QVariantMap changed = b.m().compareProfileFile(urlOf(path));
    ASSERT_TRUE(changed["ok"].toBool()) << text(changed["error"]);
    EXPECT_FALSE(changed["matches"].toBool());
    ASSERT_EQ(changed["differences"].toList().size(), 1);
    const QVariantMap port = rowNamed(changed, "differences", "Data Port");
    EXPECT_EQ(text(port["setCommand"]), "0x20");
    EXPECT_EQ(text(port["module"]), "Network");
    EXPECT_EQ(text(port["page"]), "Data Destination");
    EXPECT_EQ(text(port["lidarText"]), "3000");
    EXPECT_EQ(text(port["profileText"]), "2368");
    EXPECT_EQ(text(port["lidarBytes"]), "0bb8");
    EXPECT_EQ(text(port["profileBytes"]), "0940");
    const QVariantMap end1 = rowNamed(changed, "fieldOfView", "End 1");
    EXPECT_EQ(text(end1["lidarText"]), "30.0");
    EXPECT_EQ(text(end1["unit"]), "°");
    EXPECT_EQ(changed["fieldOfView"].toList().size(), 1) << "only the bound that differs";
    EXPECT_EQ(changed["plan"].toStringList(), (QStringList{"0x20", "0x22"}));
    EXPECT_EQ(changed["differenceCount"].toInt(), 2);
    EXPECT_EQ(b.setRequests(), 0u) << "comparing writes nothing";

    // A profile of other firmware: a warning beside the differences.
    profile::SettingsProfile older = readBack(path);
    older.firmwareVersion = "EGRET-FW-V1-23.01.1";
    const std::string olderPath = b.folder.file("older.json");
    testsupport::WriteFile(olderPath, profile::writeProfile(older).toStdString());
    const QVariantMap warned = b.m().compareProfileFile(urlOf(olderPath));
    ASSERT_TRUE(warned["ok"].toBool()) << text(warned["error"]);
    ASSERT_EQ(warned["warnings"].toStringList().size(), 1);
    EXPECT_TRUE(warned["warnings"].toStringList()[0].contains("EGRET-FW-V1-23.01.1"));
    EXPECT_EQ(warned["differenceCount"].toInt(), 2);
}

TEST(ProfileFiles, AFileThatIsNoProfileOrDoesNotFitIsRefusedNamingTheKey) {
    Bench b;
    ASSERT_TRUE(b.connect());
    const std::string missing = b.folder.file("missing.json");
    const QVariantMap unread = b.m().compareProfileFile(urlOf(missing));
    EXPECT_FALSE(unread["ok"].toBool());
    EXPECT_EQ(text(unread["error"]).rfind("cannot read " + missing + ": ", 0), 0u)
        << text(unread["error"]);

    const std::string path = b.exportTo("egret.json");
    std::string json = testsupport::ReadFile(path);
    const std::string broken = b.folder.file("broken.json");
    const size_t bytes = json.find("\"bytes\": \"");
    ASSERT_NE(bytes, std::string::npos);
    testsupport::WriteFile(broken, std::string(json).insert(bytes + 10, "x"));
    const QVariantMap notProfile = b.m().compareProfileFile(urlOf(broken));
    EXPECT_FALSE(notProfile["ok"].toBool());
    EXPECT_NE(text(notProfile["error"])
                  .find(broken + " is not a profile this program reads: " + "settings[0].bytes"),
              std::string::npos)
        << text(notProfile["error"]);

    // For another model, and with a value the catalogue does not allow: refusals, each naming
    // its key, and nothing written by an apply.
    const std::string other = b.folder.file("other.json");
    std::string plover = json;
    plover.replace(plover.find("\"Egret\""), 7, "\"Plover\"");
    testsupport::WriteFile(other, plover);
    const QVariantMap refused = b.m().applyProfileFile(urlOf(other));
    EXPECT_FALSE(refused["ok"].toBool());
    EXPECT_EQ(text(refused["state"]), "refused");
    EXPECT_EQ(refused["refusals"].toStringList(),
              QStringList{"model: the profile is for Plover, the lidar is Egret"});

    profile::SettingsProfile loaded = readBack(path);
    int vlan = -1;
    for (int i = 0; i < loaded.settings.size(); ++i)
        if (loaded.settings[i].varId == "vlan_id") vlan = i;
    ASSERT_GE(vlan, 0);
    loaded.settings[vlan].bytes = QByteArray::fromHex("0000");
    const std::string outOfRange = b.folder.file("vlan0.json");
    testsupport::WriteFile(outOfRange, profile::writeProfile(loaded).toStdString());
    b.lidar->WriteBlock(kNetworkGet, {}, kDataPortOffset, {0x0B, 0xB8});
    const QVariantMap unfit = b.m().applyProfileFile(urlOf(outOfRange));
    EXPECT_EQ(text(unfit["state"]), "refused");
    const QStringList refusals = unfit["refusals"].toStringList();
    ASSERT_EQ(refusals.size(), 1);
    EXPECT_TRUE(refusals[0].startsWith("settings[" + QString::number(vlan) + "].bytes: VLAN ID"))
        << refusals[0].toStdString();
    EXPECT_EQ(b.setRequests(), 0u) << "nothing was written";
    EXPECT_EQ(slice(b.lidar->Block(kNetworkGet), kDataPortOffset, 2), (Bytes{0x0B, 0xB8}));
}

TEST(ProfileFiles, ApplyWritesTheDifferencesAndVerifiesThem) {
    Bench b;
    ASSERT_TRUE(b.connect());
    const std::string path = b.exportTo("egret.json");
    const Bytes network = b.lidar->Block(kNetworkGet);
    const Bytes fieldOfView = b.lidar->Block(kFieldOfViewGet);

    const QVariantMap already = b.m().applyProfileFile(urlOf(path));
    EXPECT_TRUE(already["ok"].toBool()) << text(already["error"]);
    EXPECT_EQ(text(already["state"]), "matched");
    EXPECT_TRUE(already["written"].toStringList().isEmpty());
    EXPECT_EQ(b.setRequests(), 0u);

    b.lidar->WriteBlock(kNetworkGet, {}, kDataPortOffset, {0x0B, 0xB8});
    b.lidar->WriteBlock(kFieldOfViewGet, {}, 4, {0x01, 0x2C});
    const QVariantMap applied = b.m().applyProfileFile(urlOf(path));
    EXPECT_TRUE(applied["ok"].toBool()) << text(applied["error"]);
    EXPECT_EQ(text(applied["state"]), "verified");
    EXPECT_EQ(applied["written"].toStringList(), (QStringList{"0x20", "0x22"}));
    EXPECT_EQ(text(rowNamed(applied, "differences", "Data Port")["lidarText"]), "3000")
        << "the outcome shows what was written";
    EXPECT_TRUE(applied["after"].toMap()["verified"].toBool());
    EXPECT_EQ(b.lidar->Block(kNetworkGet), network);
    EXPECT_EQ(b.lidar->Block(kFieldOfViewGet), fieldOfView);
    EXPECT_EQ(b.lidar->RequestCount(0x21), 0u);
    EXPECT_TRUE(b.m().getIsConnected());
    EXPECT_EQ(b.m().getSetMapSize(), 0u);
}

TEST(ProfileFiles, ApplyRefusesWhileEditsWaitAndTellsACommandThatFailed) {
    Bench b;
    ASSERT_TRUE(b.connect());
    const std::string path = b.exportTo("egret.json");
    b.lidar->WriteBlock(kNetworkGet, {}, kDataPortOffset, {0x0B, 0xB8});

    int module = 0, page = 0, row = 0;
    ASSERT_TRUE(testsupport::FindVarPosition(b.m(), "Auxiliary Port", module, page, row));
    b.m().SetText(1, module, page, row, "10111");
    const QVariantMap waiting = b.m().applyProfileFile(urlOf(path));
    EXPECT_EQ(text(waiting["state"]), "refused");
    EXPECT_EQ(text(waiting["error"]), "edits wait to be applied; apply or discard them first");
    EXPECT_TRUE(waiting.contains("written") && waiting["written"].toStringList().isEmpty());
    EXPECT_EQ(b.setRequests(), 0u);
    b.m().ClearSetMap();

    sim::Fault refuse;
    ASSERT_TRUE(sim::Fault::Parse("status=3", refuse));
    b.lidar->SetFault(0x20, refuse);
    const QVariantMap failed = b.m().applyProfileFile(urlOf(path));
    EXPECT_FALSE(failed["ok"].toBool());
    EXPECT_EQ(text(failed["state"]), "failed");
    EXPECT_EQ(text(failed["failedCommand"]), "0x20");
    EXPECT_EQ(text(failed["error"]), "0x20 was not written");
    EXPECT_TRUE(failed["written"].toStringList().isEmpty());
    EXPECT_EQ(slice(b.lidar->Block(kNetworkGet), kDataPortOffset, 2), (Bytes{0x0B, 0xB8}));

    // The lidar answers the command but keeps its bytes: the read-back tells.
    ASSERT_TRUE(sim::Fault::Parse("status=0", refuse));
    b.lidar->SetFault(0x20, refuse);
    const QVariantMap ignored = b.m().applyProfileFile(urlOf(path));
    EXPECT_FALSE(ignored["ok"].toBool());
    EXPECT_EQ(text(ignored["state"]), "differs");
    EXPECT_EQ(ignored["written"].toStringList(), QStringList{"0x20"});
    const QVariantMap after = ignored["after"].toMap();
    EXPECT_FALSE(after["verified"].toBool());
    EXPECT_EQ(text(rowNamed(after, "differences", "Data Port")["lidarText"]), "3000");
}

TEST(ProfileFiles, AfterTheNetworkCommandTheApplyIsVerifiedOnceConnectedAgain) {
    Bench b;
    ASSERT_TRUE(b.connect());
    const std::string path = b.exportTo("egret.json");
    const Bytes gateway = slice(b.lidar->Block(kNetworkGet), kGatewayOffset, 4);
    b.lidar->WriteBlock(kNetworkGet, {}, kGatewayOffset, {10, 1, 2, 3});
    b.lidar->WriteBlock(kNetworkGet, {}, kDataPortOffset, {0x0B, 0xB8});

    const QVariantMap applied = b.m().applyProfileFile(urlOf(path));
    EXPECT_TRUE(applied["ok"].toBool()) << text(applied["error"]);
    EXPECT_EQ(text(applied["state"]), "unverified");
    EXPECT_EQ(applied["written"].toStringList(), (QStringList{"0x20", "0x21"}));
    EXPECT_EQ(text(applied["newAddress"]), "") << "the profile leaves the lidar its address";
    EXPECT_EQ(text(rowNamed(applied, "differences", "Gateway")["profileText"]),
              QString("%1.%2.%3.%4")
                  .arg(gateway[0])
                  .arg(gateway[1])
                  .arg(gateway[2])
                  .arg(gateway[3])
                  .toStdString());
    EXPECT_FALSE(b.m().getIsConnected()) << "the lidar closed the connection";
    const QVariantMap offline = b.m().verifyProfileFile(urlOf(path), true);
    EXPECT_FALSE(offline["ok"].toBool());
    EXPECT_EQ(text(offline["error"]), "not connected to a lidar");

    ASSERT_TRUE(b.session.ConnectAndWait());
    const QVariantMap verified = b.m().verifyProfileFile(urlOf(path), true);
    ASSERT_TRUE(verified["ok"].toBool()) << text(verified["error"]);
    EXPECT_TRUE(verified["verified"].toBool());
    EXPECT_TRUE(verified["networkNotVerified"].toBool());
    EXPECT_EQ(slice(b.lidar->Block(kNetworkGet), kGatewayOffset, 4), gateway);
    // Until its restart the lidar may report the network settings it runs with: those are set
    // aside while the network command waits, and only then.
    b.lidar->WriteBlock(kNetworkGet, {}, kGatewayOffset, {10, 1, 2, 3});
    const QVariantMap pending = b.m().verifyProfileFile(urlOf(path), true);
    EXPECT_TRUE(pending["verified"].toBool());
    EXPECT_TRUE(pending["differences"].toList().isEmpty());
    const QVariantMap strict = b.m().verifyProfileFile(urlOf(path), false);
    EXPECT_FALSE(strict["verified"].toBool());
    EXPECT_FALSE(strict["networkNotVerified"].toBool());
    EXPECT_EQ(text(rowNamed(strict, "differences", "Gateway")["lidarText"]), "10.1.2.3");

    // A profile that gives the lidar another address says where it will answer.
    const std::string moved = b.folder.file("moved.json");
    ASSERT_TRUE(b.m().exportProfileFile(urlOf(moved), true, false)["ok"].toBool());
    profile::SettingsProfile withAddress = readBack(moved);
    ASSERT_EQ(withAddress.settings.front().name, "IP Address");
    withAddress.settings.front().bytes = QByteArray::fromHex("0a090807");
    testsupport::WriteFile(moved, profile::writeProfile(withAddress).toStdString());
    const QVariantMap readdressed = b.m().applyProfileFile(urlOf(moved));
    EXPECT_EQ(text(readdressed["state"]), "unverified");
    EXPECT_EQ(text(readdressed["newAddress"]), "10.9.8.7");
    EXPECT_EQ(slice(b.lidar->Block(kNetworkGet), 0, 4), (Bytes{10, 9, 8, 7}));
}

TEST(ProfileFiles, OnlyThePlanThePersonConfirmedIsWritten) {
    Bench b;
    ASSERT_TRUE(b.connect());
    const std::string path = b.exportTo("egret.json");
    b.lidar->WriteBlock(kNetworkGet, {}, kDataPortOffset, {0x0B, 0xB8});
    const QVariantMap plan = b.m().compareProfileFile(urlOf(path));
    ASSERT_TRUE(plan["ok"].toBool()) << text(plan["error"]);
    const QString confirmed = plan["planKey"].toString();
    EXPECT_FALSE(confirmed.isEmpty());

    // The field of view changes at the lidar after the plan was shown: nothing is written.
    b.lidar->WriteBlock(kFieldOfViewGet, {}, 4, {0x01, 0x2C});
    const QVariantMap changed = b.m().applyProfileFile(urlOf(path), confirmed);
    EXPECT_FALSE(changed["ok"].toBool());
    EXPECT_EQ(text(changed["state"]), "changed");
    EXPECT_EQ(b.setRequests(), 0u);

    // The plan shown again is the one written.
    const QVariantMap again = b.m().compareProfileFile(urlOf(path));
    const QVariantMap applied = b.m().applyProfileFile(urlOf(path), again["planKey"].toString());
    EXPECT_EQ(text(applied["state"]), "verified") << text(applied["error"]);
    EXPECT_EQ(applied["written"].toStringList(), (QStringList{"0x20", "0x22"}));
}
