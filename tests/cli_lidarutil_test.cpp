// lidarutil as a person or a script runs it: the built executable, started from the repository
// root, talking to its embedded simulator.

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <tuple>

#include "cli_support.h"
#include "test_support.h"

using testsupport::ConsoleFolder;
using testsupport::lidarutil;
using testsupport::lines;
using testsupport::Outcome;
using testsupport::RunningLidarutil;

namespace {

// The value of the variable `name` in the document printed by read --json.
QString jsonValue(const QJsonDocument& document, const QString& name) {
    for (const QJsonValue& module : document.object()["modules"].toArray())
        for (const QJsonValue& page : module.toObject()["pages"].toArray())
            for (const QJsonValue& variable : page.toObject()["variables"].toArray())
                if (variable.toObject()["name"].toString() == name)
                    return variable.toObject()["value"].toString();
    return QString();
}

}  // namespace

TEST(Lidarutil, TellsItsVersion) {
    const Outcome run = lidarutil({"--version"});
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_TRUE(QRegularExpression("^lidarutil \\d+\\.\\d+\\.\\d+\n$").match(run.out).hasMatch())
        << run.out.toStdString();
}

TEST(Lidarutil, ListsModelsAndShowsTheCatalogueWithoutALidar) {
    const Outcome models = lidarutil({"models"});
    EXPECT_EQ(models.exitCode, 0) << models.err.toStdString();
    const QStringList rows = lines(models.out);
    for (const char* row : {"Egret +network", "Plover +network", "Tern +network", "Wren +serial",
                            "Wren-VRC +VRC over serial", "Heron-VRC +VRC over serial"})
        EXPECT_EQ(
            rows.filter(QRegularExpression(QString("^") + row + " +this folder +\\./Config/varID/"))
                .size(),
            1)
            << row;

    const Outcome show = lidarutil({"--model", "Egret", "show"});
    EXPECT_EQ(show.exitCode, 0) << show.err.toStdString();
    EXPECT_TRUE(show.out.contains("== Network ==")) << show.out.toStdString();
    // Name, type, get and set commands and the default of one variable, in one row.
    EXPECT_TRUE(show.out.contains(QRegularExpression("IP Address +IP +0x08 +0x21 +192.168.1.201")));
    EXPECT_TRUE(show.out.contains("0=Strongest, 1=Last, 2=Dual"));
    EXPECT_FALSE(show.err.contains("connecting")) << "show needs no lidar";

    // The machine's serial ports. Pseudo-terminals are not among them, so this machine may have
    // none: then the line that says so, otherwise one line per port, as the JSON lists them.
    const Outcome ports = lidarutil({"ports"});
    EXPECT_EQ(ports.exitCode, 0) << ports.err.toStdString();
    const QStringList portLines = lines(ports.out);
    const Outcome portsJson = lidarutil({"ports", "--json"});
    ASSERT_EQ(portsJson.exitCode, 0) << portsJson.err.toStdString();
    const QJsonArray portArray = QJsonDocument::fromJson(portsJson.out.toUtf8()).array();
    if (portArray.isEmpty()) {
        EXPECT_EQ(portLines,
                  QStringList{"no serial ports found (pseudo-terminals are not listed)"});
    }
    ASSERT_EQ(portLines.size(), std::max(1, static_cast<int>(portArray.size())));
    for (int i = 0; i < portArray.size(); ++i) {
        const QJsonObject port = portArray[i].toObject();
        EXPECT_EQ(port.keys(), (QStringList{"description", "manufacturer", "portName",
                                            "serialNumber", "systemLocation"}));
        EXPECT_TRUE(portLines[i].startsWith(port["systemLocation"].toString()))
            << portLines[i].toStdString();
    }
    EXPECT_EQ(lidarutil({"ports", "extra"}).exitCode, 2);
    // Listing them needs no catalogue: the same lines from any folder, and nothing left there.
    testsupport::TempDir elsewhere;
    const QString folder = QString::fromStdString(elsewhere.path());
    const Outcome portsElsewhere = lidarutil({"ports"}, folder);
    EXPECT_EQ(portsElsewhere.exitCode, 0) << portsElsewhere.err.toStdString();
    EXPECT_EQ(portsElsewhere.out, ports.out);
    EXPECT_TRUE(QDir(folder).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot));
}

TEST(Lidarutil, ReadJsonStaysMachineReadable) {
    // The manager writes developer lines while connecting and reading; the JSON document must
    // come out alone, and --verbose shows those lines on standard error.
    const Outcome read = lidarutil({"read", "Network", "--json", "--verbose"});
    ASSERT_EQ(read.exitCode, 0) << read.err.toStdString();
    EXPECT_TRUE(read.err.contains("Init(): try to connect to lidar with TCP connection.\n"))
        << read.err.toStdString();
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(read.out.toUtf8(), &error);
    ASSERT_EQ(error.error, QJsonParseError::NoError) << read.out.toStdString();
    EXPECT_EQ(document.object()["model"].toString(), "Egret");
    EXPECT_EQ(jsonValue(document, "IP Address"), "192.168.1.201");
    EXPECT_EQ(jsonValue(document, "Data Port"), "2368");
    EXPECT_TRUE(read.err.contains("reading Network ...")) << read.err.toStdString();
}

TEST(Lidarutil, SetAppliesEditsOfSeveralCommandsAndReadsThemBack) {
    // Two variables of one set command, a selection given by its text, and a network value whose
    // command makes the lidar drop the connection: set must reconnect to read it back.
    const Outcome set = lidarutil(
        {"set", "Spin Rate=1200", "Return Mode=Dual", "Data Port=2400", "Gateway=192.168.1.254"});
    ASSERT_EQ(set.exitCode, 0) << set.err.toStdString();
    // Printed as read prints them: an option's text follows its value.
    EXPECT_EQ(lines(set.out), QStringList({"Spin Rate=1200 (1200 rpm)", "Return Mode=2 (Dual)",
                                           "Data Port=2400", "Gateway=192.168.1.254"}));
    EXPECT_TRUE(set.err.contains("VRC command [0x31] to set Spin Rate, Return Mode"));
    EXPECT_TRUE(set.err.contains("connecting again")) << set.err.toStdString();
    EXPECT_FALSE(set.err.contains("warning")) << set.err.toStdString();
}

TEST(Lidarutil, RefusesBadRequestsAndReportsDeviceFailures) {
    const Outcome unknown = lidarutil({"set", "Spin Rate=1200", "No Such Thing=1"});
    EXPECT_EQ(unknown.exitCode, 2);
    EXPECT_TRUE(unknown.err.contains("unknown variable 'No Such Thing'"))
        << unknown.err.toStdString();
    EXPECT_FALSE(unknown.err.contains("connecting")) << "nothing may be sent";
    EXPECT_TRUE(unknown.out.isEmpty());

    const Outcome badOption = lidarutil({"set", "Return Mode=Triple"});
    EXPECT_EQ(badOption.exitCode, 2);
    EXPECT_TRUE(badOption.err.contains("0=Strongest, 1=Last, 2=Dual"))
        << badOption.err.toStdString();

    // Within the type but outside the catalogue's limits (-5..5): caught before anything is sent.
    const Outcome outOfRange = lidarutil({"set", "Noise Filter Level=9"});
    EXPECT_EQ(outOfRange.exitCode, 2);
    EXPECT_TRUE(outOfRange.err.contains("Noise Filter Level is out of range"));
    EXPECT_TRUE(outOfRange.err.contains("nothing was sent"));

    // The lidar refuses the write (it wants another token): the manager's failure, exit 1.
    const Outcome refused =
        lidarutil({"--model", "Tern", "--token", "other", "set", "Data Port=2400"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_TRUE(refused.err.contains("Set Failed: 0x20 SET")) << refused.err.toStdString();

    // Every subcommand has its own help; usage mistakes are one line and status 2.
    const Outcome help = lidarutil({"set", "--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_TRUE(help.out.contains("NAME=VALUE")) << help.out.toStdString();
    const Outcome unknownCommand = lidarutil({"--model", "Tern", "bogus"});
    EXPECT_EQ(unknownCommand.exitCode, 2);
    EXPECT_EQ(lines(unknownCommand.err).size(), 1);
    EXPECT_TRUE(unknownCommand.err.contains("unknown command 'bogus'"));
    const Outcome badCount = lidarutil({"watch", "--count", "0"});
    EXPECT_EQ(badCount.exitCode, 2);
    EXPECT_TRUE(badCount.err.contains("--count: needs a whole number of 1 or more"));

    testsupport::TempDir elsewhere;
    const Outcome noConfig = lidarutil({"show"}, QString::fromStdString(elsewhere.path()));
    EXPECT_EQ(noConfig.exitCode, 2);
    EXPECT_TRUE(noConfig.err.contains("no model catalogues: looked in ./Config/varID"))
        << noConfig.err.toStdString();
}

TEST(Lidarutil, WritesTheFieldOfViewAndWatchesTimerValues) {
    const Outcome fov = lidarutil({"fov", "0=15", "9=270.5", "--json"});
    ASSERT_EQ(fov.exitCode, 0) << fov.err.toStdString();
    const QJsonArray regions = QJsonDocument::fromJson(fov.out.toUtf8())["regions"].toArray();
    ASSERT_EQ(regions.size(), 5) << fov.out.toStdString();
    EXPECT_EQ(regions[0]["start"].toDouble(), 15.0);
    EXPECT_EQ(regions[4]["end"].toDouble(), 270.5);
    EXPECT_EQ(regions[1]["end"].toDouble(), 360.0);

    const Outcome watch = lidarutil({"watch", "Status", "--count", "1"});
    ASSERT_EQ(watch.exitCode, 0) << watch.err.toStdString();
    EXPECT_TRUE(watch.out.contains("refresh 1\n"));
    EXPECT_TRUE(watch.out.contains(QRegularExpression("\nBoard Temperature=41\\.50\n")))
        << watch.out.toStdString();
    EXPECT_FALSE(watch.out.contains("refresh 2"));
}

using testsupport::SimulatorProcess;

TEST(Lidarutil, InfoShowsIdentityAndNamesWhatTheLidarRefused) {
    const Outcome info = lidarutil({"info"});
    ASSERT_EQ(info.exitCode, 0) << info.err.toStdString();
    for (const char* line : {"Serial Number=EG2411050123", "Part Number=EGR-064-0001-02",
                             "Calibration ID=0x0A1B2C3D4E5F6071"})
        EXPECT_TRUE(lines(info.out).contains(line)) << line << "\n" << info.out.toStdString();
    EXPECT_FALSE(info.err.contains("warning")) << info.err.toStdString();

    // A lidar that refuses the device-information command: named, with its status, exit 1.
    const SimulatorProcess refusing("Egret", {"0x07:status=2"});
    ASSERT_FALSE(refusing.port().isEmpty());
    const Outcome refused = lidarutil({"--host", "127.0.0.1", "--port", refusing.port(), "info"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_TRUE(
        refused.err.contains("(request 0x07): the lidar answered with status 2 "
                             "(unknown command)"))
        << refused.err.toStdString();
    // --verbose adds the manager's developer line for the failed request, on standard error.
    const Outcome read = lidarutil(
        {"--host", "127.0.0.1", "--port", refusing.port(), "--verbose", "read", "Device Info"});
    EXPECT_EQ(read.exitCode, 1);
    EXPECT_TRUE(
        read.err.contains("GetInfoFromLidarWithSameCmd(): try get Serial Number FAILED, "
                          "cmd sent = 07 -- QueryCommand()'s ret = 2\n"))
        << read.err.toStdString();
    const SimulatorProcess empty("Egret", {"0x07:status=0"});
    const Outcome emptyRead = lidarutil(
        {"--host", "127.0.0.1", "--port", empty.port(), "--verbose", "read", "Device Info"});
    EXPECT_TRUE(
        emptyRead.err.contains("GetInfoFromLidarWithSameCmd(): try get Serial Number, but "
                               "get no return msg from lidar. cmd sent = 07\n"))
        << emptyRead.err.toStdString();
    EXPECT_FALSE(emptyRead.out.contains("try get")) << emptyRead.out.toStdString();

    // An empty host is a mistake in the script, not a request for the embedded simulator.
    const Outcome emptyHost = lidarutil({"--host", "", "read"});
    EXPECT_EQ(emptyHost.exitCode, 2);
    EXPECT_TRUE(emptyHost.err.contains("--host: needs a host name or address"))
        << emptyHost.err.toStdString();
    EXPECT_FALSE(emptyHost.err.contains("connecting"));
}

TEST(Lidarutil, OptionsAreValuesOrTextsAndRefusalsAreExplained) {
    // A bare number is an option value; 1 is none of Spin Rate's, so nothing is written.
    const Outcome index = lidarutil({"set", "Spin Rate=1"});
    EXPECT_EQ(index.exitCode, 2);
    EXPECT_TRUE(index.err.contains("Spin Rate: '1' is not one of 300=300 rpm, 600=600 rpm"))
        << index.err.toStdString();
    // Two modules over one connection: nothing closes it, so nothing connects again.
    const Outcome text = lidarutil({"set", "Return Mode=dUAL", "Data Port=2400"});
    EXPECT_EQ(text.exitCode, 0) << text.err.toStdString();
    EXPECT_EQ(lines(text.out), QStringList({"Return Mode=2 (Dual)", "Data Port=2400"}));
    EXPECT_FALSE(text.err.contains("connecting again")) << text.err.toStdString();
    const Outcome first = lidarutil({"set", "Sync Source=#0", "Return Mode=#2"});
    EXPECT_EQ(lines(first.out), QStringList({"Sync Source=0 (Internal)", "Return Mode=2 (Dual)"}))
        << first.err.toStdString();

    // The lidar wants another token than the access profile's: said in plain words.
    const Outcome refused =
        lidarutil({"--model", "Tern", "--token", "other", "set", "Data Port=2400"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_TRUE(
        refused.err.contains("not authorised: the lidar refused the token of access "
                             "profile Tern"))
        << refused.err.toStdString();
    EXPECT_TRUE(refused.err.contains("Authorisation refused by the device"));

    // A linked switch is written through the variable it switches; the monitor variant's pages
    // carry their own names.
    const Outcome show = lidarutil({"--model", "Tern", "show"});
    EXPECT_TRUE(
        show.out.contains(QRegularExpression("Standby +uint8 +0x32 +0x33 \\(via Work Mode\\)")))
        << show.out.toStdString();
    const Outcome egret = lidarutil({"show"});
    EXPECT_TRUE(egret.out.contains("-- Power --")) << egret.out.toStdString();
    EXPECT_FALSE(egret.out.contains("-- page")) << egret.out.toStdString();
}

TEST(Lidarutil, FieldOfViewModeBoundsAndWhatTheLidarConfirmed) {
    const Outcome write = lidarutil({"fov", "mode=Regions", "0=15", "9=270.5"});
    ASSERT_EQ(write.exitCode, 0) << write.err.toStdString();
    EXPECT_TRUE(
        write.err.contains("field of view written: region 1 start 15.0, region 5 end "
                           "270.5, mode 1; the lidar confirms it"))
        << write.err.toStdString();
    EXPECT_EQ(lines(write.out).value(0), "mode=1 (Regions)");

    for (const QString argument : {"-1=5", "10=5"}) {
        const Outcome bad = lidarutil({"fov", argument});
        EXPECT_EQ(bad.exitCode, 2) << argument.toStdString();
        EXPECT_TRUE(bad.err.contains("the channels are regions 1-5")) << bad.err.toStdString();
    }
    const Outcome fine = lidarutil({"fov", "0=15.25"});
    EXPECT_EQ(fine.exitCode, 2);
    EXPECT_TRUE(fine.err.contains("at most one decimal")) << fine.err.toStdString();
}

// watch ends at once on Ctrl-C, printing nothing more, and with status 1 when the lidar is lost.
TEST(Lidarutil, WatchEndsOnInterruptAndOnALostLidar) {
    const auto startWatch = [](QProcess& watch, const QStringList& arguments) {
        watch.setWorkingDirectory(QString::fromStdString(testsupport::SourceDir()));
        watch.start(LIDAR_BINARY_DIR "/cli/lidarutil", arguments);
        QString out;
        for (int waited = 0; !out.contains("refresh 1\n") && waited < 100; ++waited) {
            watch.waitForReadyRead(100);
            out += QString::fromUtf8(watch.readAllStandardOutput());
        }
        // The rest of the block follows its heading at once; the next one is 3 s away.
        while (watch.waitForReadyRead(700)) out += QString::fromUtf8(watch.readAllStandardOutput());
        return out;
    };

    QProcess interrupted;
    QString out = startWatch(interrupted, {"watch", "Status"});
    ASSERT_TRUE(out.contains("refresh 1\n")) << out.toStdString();
    ::kill(static_cast<pid_t>(interrupted.processId()), SIGINT);
    ASSERT_TRUE(interrupted.waitForFinished(2000));
    EXPECT_EQ(interrupted.exitCode(), 0);
    EXPECT_EQ(QString::fromUtf8(interrupted.readAllStandardOutput()), "");

    auto lidar = std::make_unique<SimulatorProcess>("Egret", QStringList());
    QProcess lost;
    out = startWatch(lost, {"--host", "127.0.0.1", "--port", lidar->port(), "watch", "Status"});
    ASSERT_TRUE(out.contains("refresh 1\n")) << out.toStdString();
    lidar.reset();
    ASSERT_TRUE(lost.waitForFinished(10000));
    EXPECT_EQ(lost.exitCode(), 1);
    EXPECT_FALSE(QString::fromUtf8(lost.readAllStandardOutput()).contains("refresh"));
    EXPECT_TRUE(QString::fromUtf8(lost.readAllStandardError())
                    .contains("connection to the lidar "
                              "was lost"));
}

TEST(Lidarutil, RefusesBadArgumentsBeforeConnectingAndEndsAWatchThatGetsNoValue) {
    for (const QStringList& arguments :
         {QStringList{"fov", "0=361"}, QStringList{"fov", "0=-1"}, QStringList{"fov", "mode="},
          QStringList{"--token", "", "info"}}) {
        const Outcome refused = lidarutil(arguments);
        EXPECT_EQ(refused.exitCode, 2) << arguments.join(' ').toStdString();
        EXPECT_FALSE(refused.err.contains("connecting")) << refused.err.toStdString();
    }
    // A float is written with its fraction: 10.99 is beyond a limit of 10.
    const Outcome beyond = lidarutil({"--model", "Plover", "set", "Pitch Correction=10.99"});
    EXPECT_EQ(beyond.exitCode, 2) << beyond.err.toStdString();

    const SimulatorProcess failing("Egret", {"0x40:status=5"});
    const Outcome watch = lidarutil({"--host", "127.0.0.1", "--port", failing.port(), "watch"});
    EXPECT_EQ(watch.exitCode, 1);
    EXPECT_TRUE(
        watch.err.contains("could not refresh (request 0x40): the lidar answered with "
                           "status 5 (device failure)"))
        << watch.err.toStdString();
}

// A refusal names its real reason: the limits, the type's range beside the parser's words, a
// read-only value, the visible variable that writes a hidden one.
TEST(Lidarutil, SetRefusalsNameTheLimitsAndTheRealReason) {
    // The module check lets a typed 0 through by design; lidarutil checks each value as well.
    for (const auto& [edit, limits] :
         {std::pair<QString, QString>{"Data Port=0", "Data Port must be 1 to 65535"},
          {"VLAN ID=0", "VLAN ID must be 1 to 4094"},
          {"VLAN ID=5000", "VLAN ID must be 1 to 4094"}}) {
        const Outcome refused = lidarutil({"set", edit});
        EXPECT_EQ(refused.exitCode, 2) << edit.toStdString();
        EXPECT_TRUE(refused.err.contains(limits)) << refused.err.toStdString();
        EXPECT_TRUE(refused.err.contains("nothing was sent")) << refused.err.toStdString();
        EXPECT_FALSE(refused.err.contains("the lidar holds")) << refused.err.toStdString();
    }

    const Outcome tooLarge = lidarutil({"set", "Data Port=70000"});
    EXPECT_EQ(tooLarge.exitCode, 2);
    EXPECT_TRUE(
        tooLarge.err.contains("(UintParser: contains an illegal number, error:70000); it "
                              "is beyond what a uint16 holds: 0 to 65535"))
        << tooLarge.err.toStdString();
    const Outcome scaled = lidarutil({"--model", "Plover", "set", "Azimuth Offset=-2147483.649"});
    EXPECT_EQ(scaled.exitCode, 2);
    EXPECT_TRUE(scaled.err.contains("beyond what a int32 holds: -2147483.648 to 2147483.647"))
        << scaled.err.toStdString();
    // The writer would cut a fraction toward zero: lidarutil refuses it before connecting.
    for (const auto& [model, edit, reason] :
         {std::tuple<QString, QString, QString>{
              "Egret", "Data Port=1.5",
              "Data Port: '1.5' has a fraction; a uint16 holds whole numbers"},
          {"Plover", "Azimuth Offset=1.0005",
           "Azimuth Offset: '1.0005' has a fraction; a int32 holds whole steps of 0.001"}}) {
        const Outcome cut = lidarutil({"--model", model, "set", edit});
        EXPECT_EQ(cut.exitCode, 2) << edit.toStdString();
        EXPECT_TRUE(cut.err.contains(reason)) << cut.err.toStdString();
        EXPECT_TRUE(cut.err.contains("nothing was sent")) << cut.err.toStdString();
        EXPECT_FALSE(cut.err.contains("connecting")) << cut.err.toStdString();
    }
    const Outcome notANumber = lidarutil({"set", "Data Port=abc"});
    EXPECT_EQ(notANumber.exitCode, 2);
    EXPECT_FALSE(notANumber.err.contains("beyond")) << notANumber.err.toStdString();

    const Outcome readOnly = lidarutil({"set", "FOV Region Count=5"});
    EXPECT_EQ(readOnly.exitCode, 2);
    EXPECT_TRUE(readOnly.err.contains("FOV Region Count is read-only"))
        << readOnly.err.toStdString();
    const Outcome hidden = lidarutil({"set", "vlan flag=1"});
    EXPECT_EQ(hidden.exitCode, 2);
    EXPECT_TRUE(hidden.err.contains("VLAN Flag is written through VLAN: set 'VLAN=VALUE'"))
        << hidden.err.toStdString();
}

// A value another tool left outside its limits blocks the module: the designed warning, then
// what the lidar holds and how to go on; giving it a value in the same command goes through.
TEST(Lidarutil, SetExplainsAValueTheLidarHoldsOutsideItsLimits) {
    const SimulatorProcess lidar("Egret", {});
    const ConsoleFolder folder;
    const QStringList host{"--host", "127.0.0.1", "--port", lidar.port()};
    // Spin Rate 600, Return Mode 0, Standby 0, Phase Lock Angle 0, Sync Source 0, Noise Filter 9.
    const Outcome other = lidarutil(
        host + QStringList{"send", "0x31", "02", "58", "00", "00", "00", "00", "00", "09"},
        folder.path());
    ASSERT_EQ(other.exitCode, 0) << other.err.toStdString();

    const Outcome blocked = lidarutil(host + QStringList{"set", "Return Mode=Dual"}, folder.path());
    EXPECT_EQ(blocked.exitCode, 2);
    const QStringList err = lines(blocked.err);
    const int warning = static_cast<int>(
        err.indexOf("WARNING: Detected that the user set Noise Filter Level is out of range"));
    ASSERT_GE(warning, 0) << blocked.err.toStdString();
    EXPECT_TRUE(
        err.value(warning + 1)
            .startsWith(
                "lidarutil: the lidar holds Noise Filter Level=9, outside its limits -5 to 5"))
        << blocked.err.toStdString();
    EXPECT_TRUE(err.value(warning + 1).contains("'Noise Filter Level=VALUE'"));

    const Outcome fixed = lidarutil(
        host + QStringList{"set", "Return Mode=Dual", "Noise Filter Level=3"}, folder.path());
    EXPECT_EQ(fixed.exitCode, 0) << fixed.err.toStdString();
    EXPECT_EQ(lines(fixed.out), QStringList({"Return Mode=2 (Dual)", "Noise Filter Level=3"}));
}

// The read-back is compared by the stored value: the largest int32 offset is written exactly
// and its single-precision display is no reason for a warning.
TEST(Lidarutil, SetComparesTheReadBackByTheStoredValue) {
    const Outcome set = lidarutil({"--model", "Plover", "set", "Azimuth Offset=2147483.647"});
    EXPECT_EQ(set.exitCode, 0) << set.err.toStdString();
    EXPECT_TRUE(set.err.contains("VRC command [0x51]")) << set.err.toStdString();
    EXPECT_FALSE(set.err.contains("warning")) << set.err.toStdString();
}

TEST(Lidarutil, FovSendsNothingTheLidarHoldsAndRefusesWhatSetWouldRefuse) {
    for (const QStringList& arguments :
         {QStringList{"fov", "mode=0"}, QStringList{"fov", "mode=Full Circle", "5=360"}}) {
        const Outcome held = lidarutil(arguments);
        EXPECT_EQ(held.exitCode, 0) << held.err.toStdString();
        EXPECT_TRUE(held.err.contains("the lidar holds these values already; nothing was sent"))
            << held.err.toStdString();
        EXPECT_FALSE(held.err.contains("field of view written")) << held.err.toStdString();
    }

    const Outcome twice = lidarutil({"fov", "0=1", "0=2"});
    EXPECT_EQ(twice.exitCode, 2);
    EXPECT_TRUE(twice.err.contains("bound 0 is given twice")) << twice.err.toStdString();
    EXPECT_FALSE(twice.err.contains("connecting"));
    const Outcome modeTwice = lidarutil({"fov", "mode=0", "mode=1"});
    EXPECT_EQ(modeTwice.exitCode, 2);
    EXPECT_TRUE(modeTwice.err.contains("mode is given twice")) << modeTwice.err.toStdString();

    // Region 1 ends at 360 on the lidar; 0=200 5=100 and 5=0 with a start of 0.5 are inverted.
    for (const QStringList& arguments :
         {QStringList{"fov", "0=200", "5=100"}, QStringList{"fov", "0=0.5", "5=0"}}) {
        const Outcome inverted = lidarutil(arguments);
        EXPECT_EQ(inverted.exitCode, 2) << arguments.join(' ').toStdString();
        EXPECT_TRUE(inverted.err.contains("region 1 would start at")) << inverted.err.toStdString();
        EXPECT_FALSE(inverted.err.contains("field of view written"));
    }
    // A region across 0 is two regions; the refusal says how, and its example is accepted.
    for (const auto& [arguments, advice] :
         {std::pair<QStringList, QString>{{"fov", "0=350", "5=10"},
                                          "two regions, 350.0 to 360.0 and 0.0 to 10.0 (for "
                                          "instance fov 0=350.0 5=360.0 1=0.0 6=10.0)"},
          {{"fov", "4=300", "9=5"}, "(for instance fov 4=300.0 9=360.0 0=0.0 5=5.0)"}}) {
        const Outcome across = lidarutil(arguments);
        EXPECT_EQ(across.exitCode, 2);
        EXPECT_TRUE(across.err.contains(advice + "; nothing was sent")) << across.err.toStdString();
    }
    const Outcome split = lidarutil({"fov", "0=350.0", "5=360.0", "1=0.0", "6=10.0"});
    EXPECT_EQ(split.exitCode, 0) << split.err.toStdString();

    // The report tells what changed from what the lidar held already, mode and bounds alike.
    for (const auto& [arguments, report] :
         {std::pair<QStringList, QString>{{"fov", "mode=0", "0=15"},
                                          "written: region 1 start 15.0; already so, unchanged: "
                                          "mode 0; the lidar confirms it"},
          {{"fov", "mode=Regions", "5=360"},
           "written: mode 1; already so, unchanged: region 1 end 360.0; the lidar confirms it"}}) {
        const Outcome partly = lidarutil(arguments);
        EXPECT_EQ(partly.exitCode, 0) << partly.err.toStdString();
        EXPECT_TRUE(partly.err.contains("field of view " + report)) << partly.err.toStdString();
    }
    const Outcome onePoint = lidarutil({"fov", "0=90", "5=90"});
    EXPECT_EQ(onePoint.exitCode, 0) << onePoint.err.toStdString();

    // set's number forms: an exponent, a sign, trailing zeros.
    const Outcome forms = lidarutil({"fov", "0=1.5e1", "5=+300.50", "--json"});
    ASSERT_EQ(forms.exitCode, 0) << forms.err.toStdString();
    const QJsonArray regions = QJsonDocument::fromJson(forms.out.toUtf8())["regions"].toArray();
    EXPECT_EQ(regions[0]["start"].toDouble(), 15.0) << forms.out.toStdString();
    EXPECT_EQ(regions[0]["end"].toDouble(), 300.5) << forms.out.toStdString();
    EXPECT_TRUE(forms.err.contains("region 1 start 15.0, region 1 end 300.5"))
        << forms.err.toStdString();
}

// Help names values as a person reads them, for every option and argument of every command.
namespace {

// The subcommands lidarutil --help lists, read from its "Subcommands:" section.
QStringList listedSubcommands(const QString& help) {
    const QString section = help.section("Subcommands:\n", 1).section("\n\n", 0, 0);
    QStringList names;
    for (const QString& line : section.split('\n', Qt::SkipEmptyParts))
        names << line.trimmed().section(' ', 0, 0);
    return names;
}

// The commands of the README's lidarutil table: the first word of each row's first cell.
QStringList readmeCommands() {
    QFile readme(QString::fromStdString(testsupport::SourceDir()) + "/README.md");
    EXPECT_TRUE(readme.open(QIODevice::ReadOnly));
    QStringList names;
    const QRegularExpression row("^\\| `([a-z-]+)[ `]");
    for (const QString& line : QString::fromUtf8(readme.readAll()).split('\n')) {
        const QRegularExpressionMatch match = row.match(line);
        if (match.hasMatch() && !names.contains(match.captured(1))) names << match.captured(1);
    }
    return names;
}

}  // namespace

// Every subcommand has a help that names values for people, and the README documents each one
// (and no other).
TEST(Lidarutil, HelpNamesValuesForPeople) {
    const QRegularExpression typeName("\\b(TEXT|INT|UINT|FLOAT|BOOLEAN)\\b| in \\[");
    const Outcome top = lidarutil({"--help"});
    QStringList listed = listedSubcommands(top.out);
    QStringList documented = readmeCommands();
    listed.sort();
    documented.sort();
    EXPECT_EQ(listed.join(' ').toStdString(), documented.join(' ').toStdString());
    QList<QStringList> commands = {{},
                                   {"heron", "imu"},
                                   {"heron", "upgrade"},
                                   {"ota", "pack"},
                                   {"ota", "inspect"},
                                   {"wren", "net"},
                                   {"wren", "spin-rate"}};
    for (const QString& name : listed) commands << QStringList{name};
    for (const QStringList& command : commands) {
        const Outcome help = lidarutil(command + QStringList{"--help"});
        EXPECT_EQ(help.exitCode, 0) << command.join(' ').toStdString();
        // The usage line names the whole command as it is typed.
        const QString usage = (QStringList{"Usage: lidarutil"} + command).join(' ') + " [OPTIONS]";
        EXPECT_TRUE(help.out.contains(usage)) << help.out.toStdString();
        EXPECT_FALSE(help.out.contains(typeName)) << command.join(' ').toStdString() << ":\n"
                                                  << help.out.toStdString();
    }
    for (const QString shown :
         {"--host HOST", "--port PORT", "--local-port PORT|ANY", "--model NAME", "--token TOKEN"})
        EXPECT_TRUE(top.out.contains(shown)) << shown.toStdString() << "\n"
                                             << top.out.toStdString();
    EXPECT_TRUE(lidarutil({"log", "--help"}).out.contains("--dir DIR"));
    EXPECT_TRUE(lidarutil({"monitor", "--help"}).out.contains("--duration SECONDS"));
}
