// lidar-desk: the window over the manager. `lidar-desk --simulate MODEL` opens it on the embedded
// simulator of MODEL, connected, so that every view works with no hardware.

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QFileInfo>
#include <QQmlApplicationEngine>
#include <QQuickWindow>
#include <QTemporaryDir>
#include <QTextStream>
#include <QTimer>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "desk_session.h"
#include "desk_types.h"
#include "lidar_utilities_manager.h"
#include "screenshot_tour.h"
#include "sdk/catalogue_folders.h"

namespace {

int fail(const QString& text) {
    QTextStream(stderr) << "lidar-desk: " << text << "\n";
    return 2;
}

// A simulated run keeps the manager's settings file in a private home, so the simulator's
// loopback address never replaces the user's saved connection settings.
std::unique_ptr<QTemporaryDir> isolateSettings() {
    auto home = std::make_unique<QTemporaryDir>();
    if (!home->isValid()) return nullptr;
    setenv("HOME", home->path().toLocal8Bit().constData(), 1);
    unsetenv("XDG_CONFIG_HOME");
    return home;
}

// --version is answered before the application is made: it needs no display.
bool printVersionIfAsked(int argc, char* argv[]) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--version") == 0 || std::strcmp(argv[i], "-v") == 0) {
            std::printf("lidar-desk %s\n", LIDAR_VERSION);
            return true;
        }
    }
    return false;
}

// --help needs no display either: the help is printed by the application's own parser, which
// then runs on the offscreen platform.
void answerHelpOffscreen(int argc, char* argv[]) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0 ||
            std::strcmp(argv[i], "--help-all") == 0)
            setenv("QT_QPA_PLATFORM", "offscreen", 1);
    }
}

// The manager reads its catalogues from ./Config: from a folder without one, the window works
// in the user's working folder, which joins the user's catalogues over the installed ones.
QString moveToWorkplace() {
    lidar::Workplace workplace;
    std::string error;
    if (!lidar::ChooseWorkplace(&workplace, &error)) return QString::fromStdString(error);
    if (workplace.moved && !QDir::setCurrent(QString::fromStdString(workplace.folder)))
        return "cannot work in " + QString::fromStdString(workplace.folder);
    return QString();
}

}  // namespace

int main(int argc, char* argv[]) {
    if (printVersionIfAsked(argc, argv)) return 0;
    answerHelpOffscreen(argc, argv);
    // Qt Charts draws through the widget module: the application must be a QApplication.
    QApplication app(argc, argv);
    QApplication::setApplicationName("lidar-desk");
    QApplication::setApplicationVersion(LIDAR_VERSION);
    useDeskLook();

    QCommandLineParser parser;
    parser.setApplicationDescription("The lidar configuration window.");
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption simulate(
        "simulate", "Open on the embedded simulator of MODEL, connected.", "MODEL");
    parser.addOption(simulate);
    const QCommandLineOption screenshots(
        "screenshots", "With --simulate: save every view as a PNG file in DIR, then exit.", "DIR");
    parser.addOption(screenshots);
    parser.process(app);
    if (parser.isSet(screenshots) && !parser.isSet(simulate))
        return fail("--screenshots needs --simulate MODEL");

    // The screenshots' folder is the user's, named from where the window was started.
    const QString screenshotFolder = QFileInfo(parser.value(screenshots)).absoluteFilePath();
    if (const QString problem = moveToWorkplace(); !problem.isEmpty()) return fail(problem);

    std::unique_ptr<QTemporaryDir> privateHome;
    if (parser.isSet(simulate)) privateHome = isolateSettings();

    LidarUtilitiesManager& manager = *LidarUtilitiesManager::getInstance(0, "");
    DeskSession session(manager, "./Config");
    if (parser.isSet(simulate)) {
        const QString model = parser.value(simulate);
        if (!session.selectModel(model)) {
            QStringList names;
            for (const QVariant& name : manager.getLidarModelList()) names << name.toString();
            return fail("unknown model '" + model + "'; the models are: " + names.join(", "));
        }
        session.setSimulated(true);
    }
    registerDeskTypes(manager, session);

    QQmlApplicationEngine engine;
    engine.load(QUrl("qrc:/qml/Main.qml"));
    if (engine.rootObjects().isEmpty()) return fail("the window could not be loaded");
    if (parser.isSet(simulate)) session.connectLidar();
    if (!parser.isSet(screenshots)) return app.exec();

    auto* window = qobject_cast<QQuickWindow*>(engine.rootObjects().first());
    if (window == nullptr) return fail("the window could not be loaded");
    window->resize(1280, 800);
    ScreenshotTour tour(*window, session, screenshotFolder);
    int status = 0;
    QObject::connect(&tour, &ScreenshotTour::finished, &app,
                     [&status, &tour](bool ok, const QString& why) {
                         for (const QString& path : tour.written())
                             QTextStream(stdout) << path << "\n";
                         if (!ok) status = fail("screenshots: " + why);
                         QApplication::exit(status);
                     });
    // Started from the event loop, so that a tour that ends at once (its folder cannot be
    // made) still ends the loop.
    QTimer::singleShot(0, &tour, &ScreenshotTour::start);
    app.exec();
    return status;
}
