// Log download: a device log saved as one binary file, and the operation log, four logs packed
// into one tar archive by the system's tar. Each runs on a worker that marks the manager busy.

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <stdexcept>
#include <system_error>

#include "command_text.h"
#include "lidar_utilities_manager.h"

namespace {

constexpr int kTarTimeoutMs = 30000;

// The four parts of the operation log: the kind and part bytes, and the file name prefix.
struct OperationLogPart {
    uint8_t kind;
    uint8_t part;
    const char* prefix;
};
constexpr OperationLogPart kOperationLogParts[] = {
    {0, 0, "bsw_warning_"}, {0, 1, "asw_warning_"}, {1, 0, "bsw_error_"}, {1, 1, "asw_error_"}};

// The request of a log variable: its get command (else its set command) as a command byte and
// payload, then the variable's own payload bytes. Throws with `missing` when it has neither.
uint8_t logRequest(const VarInfo& var, u8Array_t& payload, const std::string& missing) {
    const std::string& text = !var.get_cmd.empty() ? var.get_cmd : var.set_cmd;
    if (text.empty()) throw std::runtime_error(missing);
    uint8_t command = 0;
    if (!commandRequestOf(text, command, payload))
        throw std::invalid_argument("command text \"" + text + "\" is not a command code");
    payload.insert(payload.end(), var.get_payload.begin(), var.get_payload.end());
    return command;
}

bool writeFile(QFile& file, const u8Array_t& bytes) {
    return file.write(reinterpret_cast<const char*>(bytes.data()),
                      static_cast<qint64>(bytes.size())) == static_cast<qint64>(bytes.size());
}

}  // namespace

int LidarUtilitiesManager::DownloadLog(QUrl folder, QString name) {
    if (!deviceIsIdle()) return -1;
    try {
        startWorker([this, folder, name] { DownloadLogThread(folder, name); });
    } catch (const std::system_error&) {
        return -1;
    }
    return 0;
}

int LidarUtilitiesManager::DownloadOperationLog(QUrl archive) {
    if (!deviceIsIdle()) return -1;
    try {
        startWorker([this, archive] { DownloadOperationLogThread(archive); });
    } catch (const std::system_error&) {
        return -1;
    }
    return 0;
}

void LidarUtilitiesManager::DownloadLogThread(QUrl folder, QString name) {
    setIsDownloadLog(true);
    const QString path = folder.toLocalFile() + "/" + name + "_" +
                         QDateTime::currentDateTime().toString("yyyyMMdd-hhmmss") + ".bin";
    try {
        const VarInfo* var = searchVarPtr(name.toStdString(), "var_name");
        if (!var) throw std::runtime_error(("Can not find " + name + " name").toStdString());
        u8Array_t payload;
        const uint8_t command =
            logRequest(*var, payload, ("Can not find " + name + " command").toStdString());
        const std::shared_ptr<AuthorizedVrcClient> client = getAuthorizedClient();
        u8Array_t reply;
        const int result = client ? client->DownloadLog(payload, reply, command) : -1;
        deviceLogOutcome(name, result, client ? client->GetLastReturnCode() : -1, path, reply);
    } catch (const std::exception& e) {
        showErrorMessage(name + " download error: " + e.what());
        setIsDownloadLog(false);
        emit downloadFinished();
    }
}

// Only -1 is a failure; any other result is the device's answer and is saved. A file error is
// shown and the download still reported successful, as the design has it.
void LidarUtilitiesManager::deviceLogOutcome(const QString& name, int result, int lastCode,
                                             const QString& path, const u8Array_t& reply) {
    if (result == -1) {
        setIsDownloadLog(false);
        showErrorMessage(name + " download failed. return code: " + QString::number(lastCode));
        emit downloadFinished();
        return;
    }
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        showErrorMessage(name + ": Failed to open file.");
    } else {
        if (!writeFile(file, reply))
            showErrorMessage(name + ": Failed to write binary data to file.");
        file.close();
    }
    setIsDownloadLog(false);
    showSuccessMessage(name + " download successful.");
    emit downloadFinished();
}

void LidarUtilitiesManager::DownloadOperationLogThread(QUrl archive) {
    setIsDownloadLog(true);
    // A relative archive path means relative to where the user is now, not to the work folder
    // that tar runs in.
    QString archivePath = QFileInfo(archive.toLocalFile()).absoluteFilePath();
    if (archivePath.right(4) != ".tar") archivePath += ".tar";
    const QString stamp = QDateTime::currentDateTime().toString("yyyy_MM_dd_hh_mm_ss");
    const QString workFolder = operationLogWorkFolder();
    QDir().mkpath(workFolder);
    {
        std::lock_guard<std::mutex> lock(fieldsMutex_);
        lastOperationLogResults.clear();
    }
    try {
        const VarInfo* var = searchVarPtr("Operation Log", "var_name");
        if (!var) var = searchVarPtr("operation log", "var_name");
        if (!var) throw std::runtime_error("Can not find Operation Log name");
        u8Array_t payload;
        const uint8_t command = logRequest(*var, payload, "Can not find Operation Log command");
        const size_t at = payload.size();
        payload.resize(at + 2);

        const std::shared_ptr<AuthorizedVrcClient> client = getAuthorizedClient();
        bool everyPartAnswered = true;
        QStringList names;
        std::vector<int> results;
        for (const OperationLogPart& part : kOperationLogParts) {
            payload[at] = part.kind;
            payload[at + 1] = part.part;
            u8Array_t reply;
            const int result = client ? client->DownloadLog(payload, reply, command) : -1;
            everyPartAnswered = everyPartAnswered && result != -1;
            results.push_back(result);
            names << part.prefix + stamp + ".bin";
            QFile file(workFolder + "/" + names.back());
            if (file.open(QIODevice::ReadWrite | QIODevice::Truncate)) writeFile(file, reply);
        }
        {
            std::lock_guard<std::mutex> lock(fieldsMutex_);
            lastOperationLogResults = results;
        }
        const bool packed = runTar(workFolder, archivePath, names);
        if (packed && everyPartAnswered) {
            // The folder goes before the flag: a download started next must not lose its files.
            QDir(workFolder).removeRecursively();
            setIsDownloadLog(false);
            showSuccessMessage("Operation log download successful.");
            emit downloadOperationLogFinished(true);
        } else {
            setIsDownloadLog(false);
            showErrorMessage("Operation log download failed.");
            emit downloadOperationLogFinished(false);
        }
    } catch (const std::exception& e) {
        showErrorMessage(QString("Operation Log download error: ") + e.what());
        setIsDownloadLog(false);
        showErrorMessage("Operation log download failed.");
        emit downloadOperationLogFinished(false);
    }
}

std::vector<int> LidarUtilitiesManager::getLastOperationLogResults() const {
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    return lastOperationLogResults;
}

QString LidarUtilitiesManager::operationLogWorkFolder() {
    return QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) + "/operation_log";
}

// tar runs in the work folder so that the archive holds the bare file names. Its working
// directory is set for the child alone: the process's own current directory is not changed,
// because other threads open files relative to it (./Config/...). True when tar ended with a
// normal exit status; one that cannot be started, or is still running after 30 s, did not.
bool LidarUtilitiesManager::runTar(const QString& workFolder, const QString& archivePath,
                                   const QStringList& names) {
    QProcess tar;
    tar.setWorkingDirectory(workFolder);
    tar.setProcessChannelMode(QProcess::MergedChannels);
    tar.start("tar", QStringList{"-cvf", archivePath} + names);
    const bool finished = tar.waitForFinished(kTarTimeoutMs);
    if (!finished && tar.state() != QProcess::NotRunning) {
        tar.kill();
        tar.waitForFinished();
    }
    return finished && tar.exitStatus() == QProcess::NormalExit;
}
