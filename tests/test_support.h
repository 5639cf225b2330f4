#pragma once

// Small helpers shared by the tests: temporary directories, a scoped working directory, files.

#include <QSignalSpy>
#include <QString>
#include <functional>
#include <string>

namespace testsupport {

// A fresh directory under the system temporary directory, removed with its content at the end.
class TempDir {
  public:
    explicit TempDir(const std::string& prefix = "lidar-test");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// Changes the working directory for the life of the object (the manager reads ./Config).
class ScopedCwd {
  public:
    explicit ScopedCwd(const std::string& dir);
    ~ScopedCwd();

  private:
    std::string previous_;
};

void WriteFile(const std::string& path, const std::string& content);  // creates parent folders
std::string ReadFile(const std::string& path);
bool FileExists(const std::string& path);

// The manager's settings file under the (test) home's Documents.
QString SettingsFilePath();

// The project's source directory (holds the shipped Config/).
std::string SourceDir();

// Switches the process to a language that writes decimals with a comma (de_DE, generated into a
// temporary directory with localedef) and back to "C" at the end. active() is false when the
// machine cannot build the locale.
class ScopedCommaDecimalLocale {
  public:
    ScopedCommaDecimalLocale();
    ~ScopedCommaDecimalLocale();
    bool active() const { return active_; }

  private:
    TempDir dir_;
    bool active_ = false;
};

// Processes Qt events until predicate holds or timeoutMs passes; returns the predicate's value.
bool WaitFor(const std::function<bool()>& predicate, int timeoutMs = 5000);

// The texts of a QSignalSpy's first argument, or of both arguments joined by "|" for two.
std::vector<std::string> SpyTexts(const QSignalSpy& spy);

}  // namespace testsupport
