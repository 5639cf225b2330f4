// ota: Heron OTA packages without a lidar. pack builds one from component files; inspect checks
// one with the package reader the upgrade uses (what the upgrade would refuse, it refuses with
// the same reason) and lists its components, as the window's firmware view does.

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QSaveFile>
#include <optional>

#include "commands.h"
#include "heron_ota_package.h"
#include "output.h"

namespace cli {
namespace {

QString hex(uint32_t value, int digits) {
    return "0x" + QString::number(value, 16).toUpper().rightJustified(digits, '0');
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

// The components' table (or JSON), and a note when the header's size is not the file's.
int printPackage(const QString& path, const u8Array_t& package,
                 const heron_ota::Inspection& inspection, bool json) {
    QVector<QStringList> rows;
    QJsonArray components;
    for (const heron_ota::ComponentReport& component : inspection.components) {
        const QString name = QString::fromStdString(component.name);
        const QString crc = hex(component.crc32, 8);
        const QString sentCrc = hex(component.sentCrc32, 8);
        rows.push_back({name, QString::number(component.type), QString::number(component.offset),
                        QString::number(component.size), crc, QString::number(component.sentSize),
                        sentCrc});
        components.append(QJsonObject{{"name", name},
                                      {"type", component.type},
                                      {"offset", qint64(component.offset)},
                                      {"size", qint64(component.size)},
                                      {"crc32", crc},
                                      {"sent", qint64(component.sentSize)},
                                      {"sent_crc32", sentCrc}});
    }
    if (json) {
        printJson(QJsonDocument(QJsonObject{{"file", path},
                                            {"bytes", qint64(package.size())},
                                            {"total_size", qint64(inspection.info.total_size)},
                                            {"flags", inspection.info.flags},
                                            {"components", components}}));
    } else {
        printResult(path + ": " + QString::number(package.size()) +
                    " bytes, flags=" + hex(inspection.info.flags, 2) + ", " +
                    QString::number(rows.size()) + " component" + (rows.size() == 1 ? "" : "s"));
        // SENT: the bytes the upgrade sends (an FPGA image loses its leading 1024-byte block) and
        // their CRC, which is what a lidar, and lidar-sim's report, computes over what it got.
        printResult(formatTable({"NAME", "TYPE", "OFFSET", "SIZE", "CRC32", "SENT", "SENT-CRC32"},
                                rows, 2));
    }
    if (inspection.info.total_size != package.size())
        printDiagnostic("note: the header's total_size is " +
                        QString::number(inspection.info.total_size) + ", the file holds " +
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
    if (const QString problem = folderWriteProblem(target.absolutePath()); !problem.isEmpty())
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
    const heron_ota::Inspection inspection = heron_ota::Inspect(package);
    if (!inspection.valid) {  // the builder and the parser disagree: a defect, said plainly
        printDiagnostic("error: the package written is refused by the upgrade: " +
                        QString::fromStdString(inspection.reason));
        return kExitFailed;
    }
    return printPackage(QFileInfo(options.output).absoluteFilePath(), package, inspection,
                        options.json);
}

int otaInspect(const Options& options) {
    if (options.arguments.size() != 1) return usageError("ota inspect takes one package file");
    const QString& path = options.arguments.front();
    QString why;
    const std::optional<u8Array_t> package = readFile(path, why);
    if (!package) return usageError(why);
    const heron_ota::Inspection inspection = heron_ota::Inspect(*package);
    if (!inspection.valid) {
        printDiagnostic("error: " + path +
                        " is not a valid Heron OTA package (the upgrade refuses it): " +
                        QString::fromStdString(inspection.reason));
        return kExitFailed;
    }
    return printPackage(QFileInfo(path).absoluteFilePath(), *package, inspection, options.json);
}

}  // namespace

QString otaPackageRefusal(const QString& path) {
    QString why;
    const std::optional<u8Array_t> package = readFile(path, why);
    if (!package) return why;
    const heron_ota::Inspection inspection = heron_ota::Inspect(*package);
    return inspection.valid ? QString() : QString::fromStdString(inspection.reason);
}

int commandOta(const Options& options) {
    if (options.action == "pack") return otaPack(options);
    if (options.action == "inspect") return otaInspect(options);
    return usageError("unknown ota command '" + options.action + "'");
}

}  // namespace cli
