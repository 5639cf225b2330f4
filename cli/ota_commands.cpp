// ota: Heron OTA packages without a lidar. pack builds one from component files; inspect checks
// one with the manager's own parser (what the upgrade would refuse, it refuses with the same
// reason) and lists its components.

#include <zlib.h>

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QSaveFile>
#include <optional>

#include "commands.h"
#include "heron_ota_package.h"
#include "lidar_utilities_manager.h"
#include "output.h"

namespace cli {
namespace {

QString hex(uint32_t value, int digits) {
    return "0x" + QString::number(value, 16).toUpper().rightJustified(digits, '0');
}

// zlib's CRC-32, as "0x" and eight hexadecimal digits.
QString crcText(const uint8_t* bytes, size_t size) {
    return hex(static_cast<uint32_t>(crc32(0L, bytes, static_cast<uInt>(size))), 8);
}

// A package, as the upgrade takes it, is at most 2 GiB (the upgrade refuses a larger file).
constexpr qint64 kLargestFile = INT32_MAX;

// The file's bytes; nullopt with the reason when it cannot be read or is too large.
std::optional<u8Array_t> readFile(const QString& path, QString& why) {
    QFile file(path);
    if (!QFileInfo(path).isFile() || !file.open(QIODevice::ReadOnly)) {
        why = "cannot read " + path;
        return std::nullopt;
    }
    if (file.size() > kLargestFile) {
        why = path + " holds " + QString::number(file.size()) +
              " bytes; a package and its components are at most 2 GiB";
        return std::nullopt;
    }
    const QByteArray bytes = file.readAll();
    return u8Array_t(reinterpret_cast<const uint8_t*>(bytes.constData()),
                     reinterpret_cast<const uint8_t*>(bytes.constData()) + bytes.size());
}

// The manager's verdict on a package, with the reason its parser logged when it refuses one.
struct Verdict {
    bool valid = false;
    QString reason;
    HeronOtaPackageInfo info;
    std::vector<u8Array_t> sent;  // per present component, in flag-bit order: what the lidar gets
};

Verdict judge(const u8Array_t& package) {
    Verdict verdict;
    LidarUtilitiesManager manager(0, "");
    QString lastLine;
    {
        QObject context;
        QObject::connect(
            &manager, &LidarUtilitiesManager::sendLogMessage, &context,
            [&lastLine](const QString& line, const QString&) { lastLine = line; },
            Qt::DirectConnection);
        verdict.valid = manager.HeronParseOtaPackageHeader(package, verdict.info);
        if (verdict.valid) {
            for (const heron_ota::ComponentKind& kind : heron_ota::kComponents) {
                const HeronOtaComponentInfo& component = verdict.info.*(kind.info);
                if (component.present)
                    verdict.sent.push_back(
                        manager.HeronExtractComponentData(package, component, kind.name));
            }
        }
    }
    if (!verdict.valid)
        verdict.reason = !lastLine.isEmpty()
                             ? lastLine
                             : "the file holds " + QString::number(package.size()) +
                                   " bytes, fewer than the " +
                                   QString::number(heron_ota::kHeaderSize) + " of the header";
    return verdict;
}

// The components' table (or JSON), and a note when the header's size is not the file's.
int printPackage(const QString& path, const u8Array_t& package, const Verdict& verdict, bool json) {
    QVector<QStringList> rows;
    QJsonArray components;
    size_t sentIndex = 0;
    for (const heron_ota::ComponentKind& kind : heron_ota::kComponents) {
        const HeronOtaComponentInfo& component = verdict.info.*(kind.info);
        if (!component.present) continue;
        const QString crc =
            crcText(package.data() + heron_ota::kHeaderSize + component.offset, component.size);
        const u8Array_t& sent = verdict.sent[sentIndex++];
        const QString sentCrc = crcText(sent.data(), sent.size());
        rows.push_back({kind.name, QString::number(kind.type), QString::number(component.offset),
                        QString::number(component.size), crc, QString::number(sent.size()),
                        sentCrc});
        components.append(QJsonObject{{"name", kind.name},
                                      {"type", kind.type},
                                      {"offset", qint64(component.offset)},
                                      {"size", qint64(component.size)},
                                      {"crc32", crc},
                                      {"sent", qint64(sent.size())},
                                      {"sent_crc32", sentCrc}});
    }
    if (json) {
        printJson(QJsonDocument(QJsonObject{{"file", path},
                                            {"bytes", qint64(package.size())},
                                            {"total_size", qint64(verdict.info.total_size)},
                                            {"flags", verdict.info.flags},
                                            {"components", components}}));
    } else {
        printResult(path + ": " + QString::number(package.size()) +
                    " bytes, flags=" + hex(verdict.info.flags, 2) + ", " +
                    QString::number(rows.size()) + " component" + (rows.size() == 1 ? "" : "s"));
        // SENT: the bytes the upgrade sends (an FPGA image loses its leading 1024-byte block) and
        // their CRC, which is what a lidar, and lidar-sim's report, computes over what it got.
        printResult(formatTable({"NAME", "TYPE", "OFFSET", "SIZE", "CRC32", "SENT", "SENT-CRC32"},
                                rows, 2));
    }
    if (verdict.info.total_size != package.size())
        printDiagnostic("note: the header's total_size is " +
                        QString::number(verdict.info.total_size) + ", the file holds " +
                        QString::number(package.size()) + " bytes (the upgrade does not check it)");
    return kExitOk;
}

int otaPack(const Options& options) {
    if (!options.arguments.isEmpty())
        return usageError("ota pack takes its files as options (--bmb-app-a FILE ... -o PACKAGE)");
    if (options.componentFiles.isEmpty())
        return usageError(
            "ota pack needs at least one component: --bmb-app-a, --bmb-app-b, --bmb-fpga, "
            "--tmb-fpga or --tmb-param");
    std::array<std::optional<u8Array_t>, heron_ota::kComponentCount> parts;
    for (auto file = options.componentFiles.begin(); file != options.componentFiles.end(); ++file) {
        const std::optional<size_t> index = heron_ota::ComponentIndex(file.key().toStdString());
        if (!index) return usageError("unknown component " + file.key());
        QString why;
        parts[*index] = readFile(file.value(), why);
        if (!parts[*index]) return usageError(file.key() + ": " + why);
        if (parts[*index]->empty())
            return usageError(file.key() + "'s file " + file.value() +
                              " is empty; a package holds no empty component");
    }
    // The target is judged as every command judges the place it writes to, before any work.
    const QFileInfo target(options.output);
    if (target.isDir())
        return usageError(options.output + " is a folder; ota pack needs the package's file name");
    if (const QString problem = unwritableFolder(target.absolutePath()); !problem.isEmpty())
        return usageError(problem);
    u8Array_t package;
    std::string error;
    if (!heron_ota::BuildPackage(parts, package, error))
        return usageError("ota pack: " + QString::fromStdString(error));
    if (package.size() > static_cast<size_t>(kLargestFile))
        return usageError("ota pack: the package would hold " + QString::number(package.size()) +
                          " bytes; the upgrade takes at most 2 GiB");

    QSaveFile out(options.output);
    if (!out.open(QIODevice::WriteOnly) ||
        out.write(reinterpret_cast<const char*>(package.data()), qint64(package.size())) !=
            qint64(package.size()) ||
        !out.commit()) {
        printDiagnostic("error: cannot write " + options.output + ": " + out.errorString());
        return kExitFailed;
    }
    const Verdict verdict = judge(package);
    if (!verdict.valid) {  // the builder and the parser disagree: a defect, said plainly
        printDiagnostic("error: the package written is refused by the upgrade: " + verdict.reason);
        return kExitFailed;
    }
    return printPackage(QFileInfo(options.output).absoluteFilePath(), package, verdict,
                        options.json);
}

int otaInspect(const Options& options) {
    if (options.arguments.size() != 1) return usageError("ota inspect takes one package file");
    const QString& path = options.arguments.front();
    QString why;
    const std::optional<u8Array_t> package = readFile(path, why);
    if (!package) return usageError(why);
    const Verdict verdict = judge(*package);
    if (!verdict.valid) {
        printDiagnostic(
            "error: " + path +
            " is not a valid Heron OTA package (the upgrade refuses it): " + verdict.reason);
        return kExitFailed;
    }
    return printPackage(QFileInfo(path).absoluteFilePath(), *package, verdict, options.json);
}

}  // namespace

QString otaPackageRefusal(const QString& path) {
    QString why;
    const std::optional<u8Array_t> package = readFile(path, why);
    if (!package) return why;
    const Verdict verdict = judge(*package);
    return verdict.valid ? QString() : verdict.reason;
}

int commandOta(const Options& options) {
    if (options.action == "pack") return otaPack(options);
    if (options.action == "inspect") return otaInspect(options);
    return usageError("unknown ota command '" + options.action + "'");
}

}  // namespace cli
