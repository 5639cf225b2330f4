#include "file_checks.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

// Why a folder refuses a new file, in words: the cause, not the C library's text for it (which
// says "No such file or directory" for /proc).
QString writeRefusal(int error) {
    switch (error) {
        case EACCES:
        case EPERM:
            return "permission denied";
        case EROFS:
            return "the file system is read-only";
        case ENOENT:
            return "the folder takes no new files";
        case ENOSPC:
        case EDQUOT:
            return "no space left";
        default:
            return QString::fromLocal8Bit(std::strerror(error));
    }
}

}  // namespace

QString folderWriteProblem(const QString& folder) {
    const QFileInfo info(folder);
    if (!info.exists()) return "no such folder: " + folder;
    if (!info.isDir()) return folder + " is not a folder";
    const QByteArray probe = QFile::encodeName(folder + "/.lidar-write-probe-" +
                                               QString::number(QCoreApplication::applicationPid()));
    const int fd = ::open(probe.constData(), O_WRONLY | O_CREAT | O_EXCL, 0600);
    if (fd < 0) return "cannot write into " + folder + ": " + writeRefusal(errno);
    ::close(fd);
    ::unlink(probe.constData());
    return QString();
}

QString packageProblem(const QString& path) {
    const QString refusal = "cannot read the package " + path + ": ";
    const QFileInfo info(path);
    if (info.isDir()) return refusal + "it is a folder";
    // Not opened: a named pipe would block the open until something writes into it.
    if (info.exists() && !info.isFile()) return refusal + "it is not a regular file";
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return refusal + QString::fromLocal8Bit(std::strerror(errno));
    ::close(fd);
    if (info.size() == 0) return "the package " + path + " is empty; nothing was sent";
    return QString();
}

bool replaceableFile(const QString& path) {
    struct stat status {};
    if (::stat(QFile::encodeName(path).constData(), &status) != 0) return errno == ENOENT;
    return S_ISREG(status.st_mode);
}

bool writeFileWhole(const QString& path, const QByteArray& content, QString* error) {
    if (!replaceableFile(path)) {
        *error = "cannot write " + path + ": not a regular file";
        return false;
    }
    const QString temporary = path + ".part-" + QString::number(QCoreApplication::applicationPid());
    QFile file(temporary);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        *error = "cannot write " + path + ": " + file.errorString();
        return false;
    }
    const bool written =
        file.write(content) == content.size() && file.flush() && ::fsync(file.handle()) == 0;
    const QString why = written ? QString() : file.errorString();
    file.close();
    if (!written || QFileInfo(temporary).size() != content.size() ||
        std::rename(QFile::encodeName(temporary).constData(),
                    QFile::encodeName(path).constData()) != 0) {
        const QString cause = why.isEmpty() ? qt_error_string(errno) : why;
        QFile::remove(temporary);
        *error = "cannot write " + path + ": " + cause;
        return false;
    }
    return true;
}
