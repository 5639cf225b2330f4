#include "test_support.h"

#include <unistd.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QStandardPaths>
#include <QThread>
#include <clocale>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace testsupport {

TempDir::TempDir(const std::string& prefix) {
    std::string pattern = QDir::tempPath().toStdString() + "/" + prefix + "-XXXXXX";
    if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TempDir::~TempDir() {
    QDir(QString::fromStdString(path_)).removeRecursively();
}

ScopedCwd::ScopedCwd(const std::string& dir) {
    previous_ = QDir::currentPath().toStdString();
    if (chdir(dir.c_str()) != 0) throw std::runtime_error("chdir failed: " + dir);
}

ScopedCwd::~ScopedCwd() {
    if (chdir(previous_.c_str()) != 0) std::abort();
}

void WriteFile(const std::string& path, const std::string& content) {
    QDir().mkpath(QFileInfo(QString::fromStdString(path)).absolutePath());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out) throw std::runtime_error("cannot write " + path);
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

bool FileExists(const std::string& path) {
    return QFileInfo::exists(QString::fromStdString(path));
}

QString SettingsFilePath() {
    return QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) +
           "/ZephyrDataFiles/RecvSettings.ini";
}

std::string SourceDir() {
    return LIDAR_SOURCE_DIR;
}

bool WaitFor(const std::function<bool()>& predicate, int timeoutMs) {
    QElapsedTimer timer;
    timer.start();
    while (!predicate()) {
        if (timer.elapsed() > timeoutMs) return predicate();
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QThread::msleep(5);
    }
    return true;
}

std::vector<std::string> SpyTexts(const QSignalSpy& spy) {
    std::vector<std::string> texts;
    for (const QList<QVariant>& args : spy) {
        std::string text = args.value(0).toString().toStdString();
        if (args.size() > 1) text += "|" + args.value(1).toString().toStdString();
        texts.push_back(text);
    }
    return texts;
}

ScopedCommaDecimalLocale::ScopedCommaDecimalLocale() : dir_("lidar-locale") {
    const std::string target = dir_.file("de_DE.UTF-8");
    const std::string command = "localedef -i de_DE -f UTF-8 '" + target + "' >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0 && !FileExists(target + "/LC_NUMERIC")) return;
    setenv("LOCPATH", dir_.path().c_str(), 1);
    active_ = std::setlocale(LC_ALL, "de_DE.UTF-8") != nullptr &&
              std::string(std::localeconv()->decimal_point) == ",";
}

ScopedCommaDecimalLocale::~ScopedCommaDecimalLocale() {
    std::setlocale(LC_ALL, "C");
    unsetenv("LOCPATH");
}

}  // namespace testsupport
