// The window's tests: Qt Quick Test files (tests/desk/tst_*.qml) against the embedded simulator.
// Each test process works in a folder of its own whose ./Config shows the shipped catalogues and
// keeps the command history to itself, with a private HOME for the settings file.

#include <QApplication>
#include <QDir>
#include <QQmlEngine>
#include <QTemporaryDir>
#include <QtQml>
#include <QtQuickTest>
#include <cstdlib>
#include <memory>

#include "desk_probe.h"
#include "desk_session.h"
#include "desk_types.h"
#include "lidar_utilities_manager.h"

class DeskTestSetup : public QObject {
    Q_OBJECT
  public slots:
    void applicationAvailable() {
        setenv("HOME", home_.path().toLocal8Bit().constData(), 1);
        unsetenv("XDG_CONFIG_HOME");
        unsetenv("XDG_DATA_HOME");
        QDir(work_.path()).mkpath("Config");
        QFile::link(LIDAR_SOURCE_DIR "/Config/varID", work_.filePath("Config/varID"));
        for (const char* file : {"feature_config.csv", "auth_config.csv"})
            QFile::copy(QString(LIDAR_SOURCE_DIR "/Config/") + file,
                        work_.filePath(QString("Config/") + file));
        QDir::setCurrent(work_.path());
    }

    void qmlEngineAvailable(QQmlEngine*) {
        LidarUtilitiesManager& manager = *LidarUtilitiesManager::getInstance(0, "");
        session_ = std::make_unique<DeskSession>(manager, "./Config");
        probe_ = std::make_unique<DeskProbe>(*session_, files_.path());
        registerDeskTypes(manager, *session_);
        useDeskLook();
        qmlRegisterSingletonInstance("LidarTest", 1, 0, "Probe", probe_.get());
    }

    void cleanupTestCase() {
        probe_.reset();
        session_.reset();
    }

  private:
    QTemporaryDir home_;
    QTemporaryDir work_;
    QTemporaryDir files_;
    std::unique_ptr<DeskSession> session_;
    std::unique_ptr<DeskProbe> probe_;
};

// The monitor charts draw through the widget module (Qt Charts), so the tests run in a
// QApplication as lidar-desk does; the Quick test runner uses the application it finds.
int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QTEST_SET_MAIN_SOURCE_PATH
    DeskTestSetup setup;
    return quick_test_main_with_setup(argc, argv, "desk", nullptr, &setup);
}

#include "desk_quick_test.moc"
