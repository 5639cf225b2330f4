// Log download (log_download.h): a device log saved as one binary file, and the operation log,
// four logs packed into one tar archive by the system's tar.

#include "log_download.h"

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
#include "sdk/authorized_vrc_client.h"
#include "subsystem_views.h"

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

// The operation log's parts as they came: each part's file in the work folder (written whatever
// came, empty when nothing did) and the client's result for it.
struct OperationLogParts {
    QStringList names;
    std::vector<int> results;
    bool everyPartAnswered = true;
};

OperationLogParts fetchOperationLogParts(AuthorizedVrcClient* client, uint8_t command,
                                         u8Array_t payload, const QString& workFolder,
                                         const QString& stamp) {
    const size_t at = payload.size();
    payload.resize(at + 2);
    OperationLogParts parts;
    for (const OperationLogPart& part : kOperationLogParts) {
        payload[at] = part.kind;
        payload[at + 1] = part.part;
        u8Array_t reply;
        const int result = client ? client->DownloadLog(payload, reply, command) : -1;
        parts.everyPartAnswered = parts.everyPartAnswered && result != -1;
        parts.results.push_back(result);
        parts.names << part.prefix + stamp + ".bin";
        QFile file(workFolder + "/" + parts.names.back());
        if (file.open(QIODevice::ReadWrite | QIODevice::Truncate)) writeFile(file, reply);
    }
    return parts;
}

}  // namespace

LogDownload::LogDownload(const DeviceLinkView& link, const BusyView& busy,
                         UserMessageSink& messages, const VariableLookup& catalogue)
    : link_(link), busy_(busy), messages_(messages), catalogue_(catalogue) {}

// ---- Starting ----

// Connected, an open client, no upgrade and no other log download.
bool LogDownload::deviceIsIdle() const {
    const std::shared_ptr<AuthorizedVrcClient> client = link_.vrcClient();
    return client && client->IsOpen() && link_.linkConnected() && !busy_.upgrading() &&
           !downloading_.load();
}

int LogDownload::startWorker(std::function<void()> job) {
    if (!deviceIsIdle()) return -1;
    try {
        workers_.start(std::move(job));
    } catch (const std::system_error&) {
        return -1;
    }
    return 0;
}

int LogDownload::startDeviceLog(const QUrl& folder, const QString& name) {
    return startWorker([this, folder, name] { downloadDeviceLog(folder, name); });
}

int LogDownload::startOperationLog(const QUrl& archive) {
    return startWorker([this, archive] { downloadOperationLog(archive); });
}

void LogDownload::setDownloading(bool downloading) {
    if (downloading_.exchange(downloading) != downloading) emit isDownloadLogChanged();
}

// ---- The device log ----

void LogDownload::downloadDeviceLog(const QUrl& folder, const QString& name) {
    setLastDeviceLogFile(QString());
    setDownloading(true);
    const QString path = folder.toLocalFile() + "/" + name + "_" +
                         QDateTime::currentDateTime().toString("yyyyMMdd-hhmmss") + ".bin";
    try {
        const VarInfo* var = catalogue_.variableNamed(name.toStdString());
        if (!var) throw std::runtime_error(("Can not find " + name + " name").toStdString());
        u8Array_t payload;
        const uint8_t command =
            logRequest(*var, payload, ("Can not find " + name + " command").toStdString());
        const std::shared_ptr<AuthorizedVrcClient> client = link_.vrcClient();
        u8Array_t reply;
        const int result = client ? client->DownloadLog(payload, reply, command) : -1;
        deviceLogOutcome(name, result, client ? client->GetLastReturnCode() : -1, path, reply);
    } catch (const std::exception& e) {
        messages_.showError(name + " download error: " + e.what());
        setDownloading(false);
        emit downloadFinished();
    }
}

// Only -1 is a failure; any other result is the device's answer and is saved. A file error is
// shown and the download still reported successful, as the design has it.
void LogDownload::deviceLogOutcome(const QString& name, int result, int lastCode,
                                   const QString& path, const u8Array_t& reply) {
    if (result == -1) {
        setDownloading(false);
        messages_.showError(name + " download failed. return code: " + QString::number(lastCode));
        emit downloadFinished();
        return;
    }
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        messages_.showError(name + ": Failed to open file.");
    } else {
        const bool written = writeFile(file, reply);
        file.close();
        if (written)
            setLastDeviceLogFile(QFileInfo(path).absoluteFilePath());
        else
            messages_.showError(name + ": Failed to write binary data to file.");
    }
    setDownloading(false);
    messages_.showSuccess(name + " download successful.");
    emit downloadFinished();
}

// ---- The operation log ----

void LogDownload::downloadOperationLog(const QUrl& archive) {
    setDownloading(true);
    // A relative archive path means relative to where the user is now, not to the work folder
    // that tar runs in.
    QString archivePath = QFileInfo(archive.toLocalFile()).absoluteFilePath();
    if (archivePath.right(4) != ".tar") archivePath += ".tar";
    const QString stamp = QDateTime::currentDateTime().toString("yyyy_MM_dd_hh_mm_ss");
    const QString folder = workFolder();
    QDir().mkpath(folder);
    setLastOperationLogResults({});
    try {
        const VarInfo* var = catalogue_.variableNamed("Operation Log");
        if (!var) var = catalogue_.variableNamed("operation log");
        if (!var) throw std::runtime_error("Can not find Operation Log name");
        u8Array_t payload;
        const uint8_t command = logRequest(*var, payload, "Can not find Operation Log command");
        const std::shared_ptr<AuthorizedVrcClient> client = link_.vrcClient();
        const OperationLogParts parts =
            fetchOperationLogParts(client.get(), command, payload, folder, stamp);
        setLastOperationLogResults(parts.results);
        const bool packed = runTar(folder, archivePath, parts.names);
        if (packed && parts.everyPartAnswered) {
            // The folder goes before the flag: a download started next must not lose its files.
            QDir(folder).removeRecursively();
            setDownloading(false);
            messages_.showSuccess("Operation log download successful.");
            emit downloadOperationLogFinished(true);
        } else {
            setDownloading(false);
            messages_.showError("Operation log download failed.");
            emit downloadOperationLogFinished(false);
        }
    } catch (const std::exception& e) {
        messages_.showError(QString("Operation Log download error: ") + e.what());
        setDownloading(false);
        messages_.showError("Operation log download failed.");
        emit downloadOperationLogFinished(false);
    }
}

void LogDownload::setLastOperationLogResults(std::vector<int> results) {
    std::lock_guard<std::mutex> lock(mutex_);
    lastOperationLogResults_ = std::move(results);
}

void LogDownload::setLastDeviceLogFile(const QString& path) {
    const std::lock_guard<std::mutex> lock(mutex_);
    lastDeviceLogFile_ = path;
}

QString LogDownload::lastDeviceLogFile() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return lastDeviceLogFile_;
}

std::vector<int> LogDownload::lastOperationLogResults() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lastOperationLogResults_;
}

QString LogDownload::workFolder() {
    return QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) + "/operation_log";
}

// tar runs in the work folder so that the archive holds the bare file names. Its working
// directory is set for the child alone: the process's own current directory is not changed,
// because other threads open files relative to it (./Config/...). True when tar ended with a
// normal exit status; one that cannot be started, or is still running after 30 s, did not.
bool LogDownload::runTar(const QString& workFolder, const QString& archivePath,
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

// ---- The façade's log download operations ----

int LidarUtilitiesManager::DownloadLog(QUrl folder, QString name) {
    return logs_->startDeviceLog(folder, name);
}

int LidarUtilitiesManager::DownloadOperationLog(QUrl archive) {
    return logs_->startOperationLog(archive);
}

void LidarUtilitiesManager::DownloadLogThread(QUrl folder, QString name) {
    logs_->downloadDeviceLog(folder, name);
}

void LidarUtilitiesManager::DownloadOperationLogThread(QUrl archive) {
    logs_->downloadOperationLog(archive);
}

bool LidarUtilitiesManager::getIsDownloadLog() const {
    return logs_->downloading();
}

void LidarUtilitiesManager::setIsDownloadLog(bool downloading) {
    logs_->setDownloading(downloading);
}

std::vector<int> LidarUtilitiesManager::getLastOperationLogResults() const {
    return logs_->lastOperationLogResults();
}

QString LidarUtilitiesManager::lastDownloadedLogFile() const {
    return logs_->lastDeviceLogFile();
}

QString LidarUtilitiesManager::operationLogWorkFolder() {
    return LogDownload::workFolder();
}
