// lidar-desk as a program: `--simulate MODEL --screenshots DIR` walks every view a model shows
// and writes its picture, and what it cannot do is refused with a reason.

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>

#include "test_support.h"

namespace {

struct DeskRun {
    int exitCode = -1;
    QString out;
    QString err;
};

// Under Xvfb with Mesa's software OpenGL, from the repository root (its Config/varID) unless
// another folder is given.
DeskRun runDesk(const QStringList& arguments,
                const QString& folder = QString::fromStdString(testsupport::SourceDir()),
                QProcessEnvironment environment = QProcessEnvironment::systemEnvironment()) {
    QProcess process;
    environment.insert("LIBGL_ALWAYS_SOFTWARE", "1");
    process.setProcessEnvironment(environment);
    process.setWorkingDirectory(folder);
    process.start(LIDAR_XVFB_RUN,
                  QStringList{"-a", "-s", "-screen 0 1600x1000x24", LIDAR_DESK} + arguments);
    DeskRun run;
    if (!process.waitForFinished(120000)) {
        process.kill();
        process.waitForFinished();
        ADD_FAILURE() << "lidar-desk " << arguments.join(' ').toStdString() << " did not finish";
    }
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}

QStringList pngsIn(const QString& folder) {
    return QDir(folder).entryList(QStringList{"*.png"}, QDir::Files, QDir::Name);
}

// A drawn view has text, frames and fields: far more than a handful of colours.
int distinctColours(const QImage& image) {
    QSet<QRgb> colours;
    for (int y = 0; y < image.height(); y += 2)
        for (int x = 0; x < image.width(); x += 2) colours.insert(image.pixel(x, y));
    return colours.size();
}

struct Tour {
    const char* model;
    QStringList pictures;
};

void PrintTo(const Tour& tour, std::ostream* out) {
    *out << tour.model;
}

class DeskScreenshots : public ::testing::TestWithParam<Tour> {};

TEST_P(DeskScreenshots, EveryViewTheModelShowsIsWrittenAt1280x800AndNoTwoAlike) {
    const Tour& tour = GetParam();
    QTemporaryDir folder;
    const QString out = folder.filePath("pictures");
    const DeskRun run = runDesk({"--simulate", tour.model, "--screenshots", out});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    ASSERT_EQ(pngsIn(out), tour.pictures);

    QSet<QByteArray> seen;
    for (const QString& name : tour.pictures) {
        const QString path = QDir(out).filePath(name);
        EXPECT_TRUE(run.out.contains(path)) << "not listed: " << name.toStdString();
        const QImage image(path);
        ASSERT_FALSE(image.isNull()) << name.toStdString();
        EXPECT_EQ(image.size(), QSize(1280, 800)) << name.toStdString();
        EXPECT_GT(distinctColours(image), 16) << name.toStdString();
        const QByteArray pixels(reinterpret_cast<const char*>(image.constBits()),
                                static_cast<int>(image.sizeInBytes()));
        EXPECT_FALSE(seen.contains(pixels)) << name.toStdString() << " repeats another view";
        seen.insert(pixels);
    }
}

// The Field of view view is offered where the catalogue reads the channel table; the Model
// operations view only for the models that have them.
INSTANTIATE_TEST_SUITE_P(
    Models, DeskScreenshots,
    ::testing::Values(Tour{"Egret",
                           {"egret-01-connect.png", "egret-02-device.png",
                            "egret-03-parameters.png", "egret-04-field-of-view.png",
                            "egret-05-console.png", "egret-06-firmware.png", "egret-07-logs.png",
                            "egret-08-monitor.png"}},
                      Tour{"Wren",
                           {"wren-01-connect.png", "wren-02-device.png", "wren-03-parameters.png",
                            "wren-04-console.png", "wren-05-firmware.png", "wren-06-logs.png",
                            "wren-07-monitor.png", "wren-08-model-operations.png"}}),
    [](const ::testing::TestParamInfo<Tour>& info) { return std::string(info.param.model); });

// Asked of an installed program on a machine with no display.
TEST(DeskProgram, TellsItsVersionWithoutADisplay) {
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove("DISPLAY");
    environment.remove("QT_QPA_PLATFORM");
    process.setProcessEnvironment(environment);
    process.start(LIDAR_DESK, QStringList{"--version"});
    ASSERT_TRUE(process.waitForFinished(30000));
    EXPECT_EQ(process.exitCode(), 0) << process.readAllStandardError().toStdString();
    const QString out = QString::fromUtf8(process.readAllStandardOutput());
    EXPECT_TRUE(QRegularExpression("^lidar-desk \\d+\\.\\d+\\.\\d+\n$").match(out).hasMatch())
        << out.toStdString();
}

TEST(DeskProgram, RefusesWhatItCannotDoWithAReason) {
    const DeskRun alone = runDesk({"--screenshots", "/tmp/never"});
    EXPECT_EQ(alone.exitCode, 2);
    EXPECT_TRUE(alone.err.contains("--screenshots needs --simulate MODEL"))
        << alone.err.toStdString();

    const DeskRun unknown = runDesk({"--simulate", "Osprey", "--screenshots", "/tmp/never"});
    EXPECT_EQ(unknown.exitCode, 2);
    EXPECT_TRUE(unknown.err.contains("unknown model 'Osprey'; the models are: "))
        << unknown.err.toStdString();
    EXPECT_TRUE(unknown.err.contains("Egret")) << unknown.err.toStdString();

    QTemporaryDir folder;
    const QString blocker = folder.filePath("file");
    QFile file(blocker);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.close();
    const DeskRun unwritable =
        runDesk({"--simulate", "Egret", "--screenshots", blocker + "/pictures"});
    EXPECT_EQ(unwritable.exitCode, 2);
    EXPECT_TRUE(unwritable.err.contains("screenshots: cannot create " + blocker + "/pictures"))
        << unwritable.err.toStdString();
    EXPECT_FALSE(QFileInfo::exists(QDir::tempPath() + "/never"));
}

}  // namespace

// From a folder without catalogues the window works from the user's own, and the pictures go
// where the user said, taken from the folder the user is in.
TEST(DeskProgram, StartsFromAnyFolderWithTheUsersCatalogues) {
    QTemporaryDir home;
    QTemporaryDir here;
    const QString models = home.filePath(".local/share/lidar-utilities/varID");
    ASSERT_TRUE(QDir().mkpath(models));
    ASSERT_TRUE(QFile::link(QString::fromStdString(testsupport::SourceDir()) + "/Config/varID/Tern",
                            models + "/Tern"));
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("HOME", home.path());
    environment.remove("XDG_DATA_HOME");
    environment.remove("XDG_STATE_HOME");
    const DeskRun run =
        runDesk({"--simulate", "Tern", "--screenshots", "pictures"}, here.path(), environment);
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_FALSE(pngsIn(here.filePath("pictures")).isEmpty());
    EXPECT_EQ(QDir(here.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
              QStringList{"pictures"});
    EXPECT_TRUE(QFileInfo(home.filePath(".local/state/lidar-utilities/Config/varID/Tern/Tern.csv"))
                    .isFile());

    const DeskRun unknown = runDesk({"--simulate", "Egret"}, here.path(), environment);
    EXPECT_EQ(unknown.exitCode, 2);
    EXPECT_TRUE(unknown.err.contains("unknown model 'Egret'; the models are: Tern"))
        << unknown.err.toStdString();
}
