// Writing a file whole or not at all: what export and the window's profile export rely on.

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include "file_checks.h"
#include "test_support.h"

namespace {

QByteArray contentOf(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
}

}  // namespace

TEST(WriteFileWhole, ReplacesAFileAndLeavesNothingBeside) {
    testsupport::TempDir folder;
    const QString path = QString::fromStdString(folder.file("profile.json"));
    QString error;
    ASSERT_TRUE(writeFileWhole(path, "first", &error)) << error.toStdString();
    ASSERT_TRUE(writeFileWhole(path, "second, longer", &error)) << error.toStdString();
    EXPECT_EQ(contentOf(path), "second, longer");
    EXPECT_EQ(QDir(QString::fromStdString(folder.path())).entryList(QDir::Files),
              QStringList{"profile.json"});
}

TEST(WriteFileWhole, NeverReplacesADeviceOrWritesIntoAMissingFolder) {
    QString error;
    EXPECT_FALSE(replaceableFile("/dev/null"));
    EXPECT_FALSE(writeFileWhole("/dev/null", "x", &error));
    EXPECT_EQ(error, "cannot write /dev/null: not a regular file");
    EXPECT_TRUE(QFileInfo("/dev/null").exists() && !QFileInfo("/dev/null").isDir());

    testsupport::TempDir folder;
    const QString missing = QString::fromStdString(folder.file("no/such/profile.json"));
    EXPECT_TRUE(replaceableFile(missing));
    EXPECT_FALSE(writeFileWhole(missing, "x", &error));
    EXPECT_TRUE(error.startsWith("cannot write " + missing + ": ")) << error.toStdString();

    // A folder in the way is no file either.
    EXPECT_FALSE(writeFileWhole(QString::fromStdString(folder.path()), "x", &error));
}
