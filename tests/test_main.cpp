// Test entry point: a QCoreApplication (QSignalSpy and queued signals need one) and a private HOME,
// so the settings file under Documents never touches a real home.

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <cstdlib>
#include <string>

#include "test_support.h"

int main(int argc, char** argv) {
    static testsupport::TempDir home("lidar-test-home");
    setenv("HOME", home.path().c_str(), 1);
    unsetenv("XDG_CONFIG_HOME");
    unsetenv("XDG_DATA_HOME");
    unsetenv("XDG_DOCUMENTS_DIR");
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
