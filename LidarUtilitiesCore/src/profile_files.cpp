// Settings profile files for the window (lidar_utilities_manager.h, "Settings profile files"):
// the capture, comparison and write of profile_operations.cpp with the file read or written and
// the outcome told as maps a QML view shows. No logic of its own beyond that order of steps.

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QVariantList>
#include <QVariantMap>
#include <algorithm>

#include "file_checks.h"
#include "lidar_utilities_manager.h"

namespace {

const char* const kDegreeUnit = "°";

QString localPathOf(const QUrl& url) {
    return url.isLocalFile() ? url.toLocalFile() : url.toString();
}

QVariantMap failure(const QString& error) {
    return QVariantMap{{"ok", false}, {"error", error}};
}

// Reads and checks a profile file; false with *error naming the file and what is wrong in it.
bool loadProfileFile(const QString& path, profile::SettingsProfile* out, QString* error) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = "cannot read " + path + ": " + file.errorString();
        return false;
    }
    QString problem;
    if (!profile::readProfile(file.readAll(), out, &problem)) {
        *error = path + " is not a profile this program reads: " + problem;
        return false;
    }
    return true;
}

bool saveFile(const QString& path, const QByteArray& content, QString* error) {
    if (QFileInfo(path).isDir()) {
        *error = path + " is a folder; name the profile file";
        return false;
    }
    return writeFileWhole(path, content, error);
}

QVariantMap differenceMap(const profile::FieldDifference& difference) {
    return QVariantMap{{"setCommand", difference.setCommand},
                       {"module", difference.module},
                       {"page", difference.page},
                       {"name", difference.name},
                       {"varId", difference.varId},
                       {"lidarText", difference.lidarText},
                       {"profileText", difference.profileText},
                       {"unit", difference.unit},
                       {"lidarBytes", QString::fromLatin1(difference.lidarBytes.toHex())},
                       {"profileBytes", QString::fromLatin1(difference.profileBytes.toHex())}};
}

QVariantMap fieldOfViewRow(const QString& name, const QString& lidar, const QString& wanted,
                           const QString& unit) {
    return QVariantMap{
        {"name", name}, {"lidarText", lidar}, {"profileText", wanted}, {"unit", unit}};
}

// The field of view's mode and bounds that differ, one row each ("Start 1" .. "End 5"); bounds
// are compared as the lidar keeps them, in tenths of a degree.
QVariantList fieldOfViewRows(const profile::ProfileComparison& comparison) {
    QVariantList rows;
    if (!comparison.fieldOfViewDiffers()) return rows;
    const profile::ProfileFieldOfView& wanted = *comparison.profileFieldOfView;
    const profile::ProfileFieldOfView lidar =
        comparison.lidarFieldOfView.value_or(profile::ProfileFieldOfView{});
    if (lidar.mode != wanted.mode) rows << fieldOfViewRow("Mode", lidar.mode, wanted.mode, "");
    const int half = profile::kFieldOfViewBoundCount / 2;
    for (int i = 0; i < wanted.bounds.size(); ++i) {
        const QString now = i < lidar.bounds.size() ? lidar.bounds[i] : QString("?");
        if (profile::boundTenths(now) == profile::boundTenths(wanted.bounds[i])) continue;
        const QString name = QString(i < half ? "Start " : "End ") + QString::number(i % half + 1);
        rows << fieldOfViewRow(name, now, wanted.bounds[i], kDegreeUnit);
    }
    return rows;
}

QVariantList differenceList(const QVector<profile::FieldDifference>& differences) {
    QVariantList list;
    for (const profile::FieldDifference& difference : differences)
        list << differenceMap(difference);
    return list;
}

// A comparison's keys of the outcome maps.
void addComparison(const profile::ProfileComparison& comparison, QVariantMap* result) {
    const QVariantList fieldOfView = fieldOfViewRows(comparison);
    (*result)["matches"] = comparison.matches();
    (*result)["warnings"] = comparison.warnings;
    (*result)["differences"] = differenceList(comparison.differences);
    (*result)["fieldOfView"] = fieldOfView;
    (*result)["plan"] = comparison.plannedCommands();
    (*result)["differenceCount"] = comparison.differences.size() + fieldOfView.size();
}

// The comparison without the network command's fields.
profile::ProfileComparison withoutNetworkFields(profile::ProfileComparison comparison) {
    QVector<profile::FieldDifference> others;
    for (const profile::FieldDifference& difference : comparison.differences)
        if (difference.setCommand != profile::kNetworkSetCommand) others << difference;
    comparison.differences = others;
    return comparison;
}

// What a comparison would write, as one text: two comparisons with the same key write the same
// bytes over the same bytes. The window confirms a plan by it.
QString planKeyOf(const profile::ProfileComparison& comparison) {
    QStringList parts;
    for (const profile::FieldDifference& difference : comparison.differences)
        parts << difference.varId + ":" + QString(difference.lidarBytes.toHex()) + ">" +
                     QString(difference.profileBytes.toHex());
    if (comparison.fieldOfViewDiffers()) {
        const profile::ProfileFieldOfView lidar =
            comparison.lidarFieldOfView.value_or(profile::ProfileFieldOfView{});
        parts << "fov:" + lidar.mode + "," + lidar.bounds.join(",") + ">" +
                     comparison.profileFieldOfView->mode + "," +
                     comparison.profileFieldOfView->bounds.join(",");
    }
    return parts.join(';');
}

// The file read, the profile checked against the loaded model and the lidar compared with it:
// the outcome map of compareProfileFile, and *loaded and *comparison when "ok".
QVariantMap loadAndCompare(LidarUtilitiesManager& manager, const QUrl& file,
                           profile::SettingsProfile* loaded,
                           profile::ProfileComparison* comparison) {
    QString error;
    if (!loadProfileFile(localPathOf(file), loaded, &error)) return failure(error);
    const QStringList refusals = manager.profileRefusals(*loaded);
    if (!refusals.isEmpty()) {
        QVariantMap result = failure("the profile does not fit this lidar");
        result["refusals"] = refusals;
        return result;
    }
    if (!manager.isDeviceLinkOpen()) return failure("not connected to a lidar");
    if (!manager.compareWithProfile(*loaded, comparison, &error)) return failure(error);
    QVariantMap result{{"ok", true}, {"error", QString()}};
    addComparison(*comparison, &result);
    result["planKey"] = planKeyOf(*comparison);
    return result;
}

// The profile's address for the lidar when it holds one and it is not the one connected to:
// where the lidar answers once it takes the network settings.
QString newAddressIn(const LidarUtilitiesManager& manager, const profile::SettingsProfile& loaded) {
    for (const profile::ProfileEntry& entry : loaded.settings) {
        const VarInfo* var = manager.searchVarPtr(entry.varId.toStdString(), "var_id");
        if (var == nullptr || !LidarUtilitiesManager::isOwnAddressVariable(*var) ||
            var->var_type != "IP")
            continue;
        const QString address = QString::fromStdString(
            LidarUtilitiesManager::valueText(*var, {entry.bytes.begin(), entry.bytes.end()})
                .value_or(std::string()));
        return address == manager.getIpAddress() ? QString() : address;
    }
    return QString();
}

// Reads the lidar again and says whether it holds the profile: the outcome map of
// verifyProfileFile.
QVariantMap verification(LidarUtilitiesManager& manager, const profile::SettingsProfile& loaded,
                         bool networkPending) {
    if (!manager.isDeviceLinkOpen()) return failure("not connected to a lidar");
    profile::ProfileComparison comparison;
    QString error;
    if (!manager.compareWithProfile(loaded, &comparison, &error)) return failure(error);
    const bool networkInProfile = std::any_of(
        loaded.settings.begin(), loaded.settings.end(), [](const profile::ProfileEntry& entry) {
            return entry.setCommand.compare(profile::kNetworkSetCommand, Qt::CaseInsensitive) == 0;
        });
    if (networkPending) comparison = withoutNetworkFields(comparison);
    QVariantMap result{{"ok", true}, {"error", QString()}};
    addComparison(comparison, &result);
    result["verified"] = comparison.matches();
    result["networkNotVerified"] = networkPending && networkInProfile;
    return result;
}

}  // namespace

QVariantMap LidarUtilitiesManager::exportProfileFile(QUrl file, bool includeOwnAddress,
                                                     bool withRecord) {
    const QString path = localPathOf(file);
    if (path.isEmpty()) return failure("no file named to export to");
    if (!isDeviceLinkOpen()) return failure("not connected to a lidar");
    ProfileScope scope;
    scope.includeOwnAddress = includeOwnAddress;
    scope.withRecord = withRecord;
    profile::SettingsProfile captured;
    QString error;
    if (!captureProfile(scope, &captured, &error)) return failure(error);
    captured.time = QDateTime::currentDateTimeUtc().toString(Qt::ISODate);
    if (!saveFile(path, profile::writeProfile(captured), &error)) return failure(error);
    return QVariantMap{{"ok", true},
                       {"error", QString()},
                       {"path", QFileInfo(path).absoluteFilePath()},
                       {"settings", captured.settings.size()},
                       {"fieldOfView", captured.fieldOfView.has_value()},
                       {"recorded", captured.record.size()},
                       {"excluded", captured.excluded}};
}

QVariantMap LidarUtilitiesManager::compareProfileFile(QUrl file) {
    profile::SettingsProfile loaded;
    profile::ProfileComparison comparison;
    return loadAndCompare(*this, file, &loaded, &comparison);
}

QVariantMap LidarUtilitiesManager::applyProfileFile(QUrl file, QString confirmedPlan) {
    // The write goes through the staging: it would send the person's waiting edits with it.
    if (getSetMapSize() > 0 || getEditedVarCount() > 0) {
        QVariantMap result = failure("edits wait to be applied; apply or discard them first");
        result["state"] = "refused";
        result["written"] = QStringList();
        return result;
    }
    profile::SettingsProfile loaded;
    profile::ProfileComparison comparison;
    QVariantMap result = loadAndCompare(*this, file, &loaded, &comparison);
    result["written"] = QStringList();
    if (!result["ok"].toBool()) {
        result["state"] = "refused";
        return result;
    }
    if (comparison.matches()) {
        result["state"] = "matched";
        return result;
    }
    // The lidar or the file may have changed since the person confirmed the plan: only that plan
    // is written.
    if (!confirmedPlan.isEmpty() && planKeyOf(comparison) != confirmedPlan) {
        result["ok"] = false;
        result["state"] = "changed";
        result["error"] =
            "the lidar or the file changed since the plan was shown; nothing was written";
        return result;
    }
    result["newAddress"] = newAddressIn(*this, loaded);
    const ProfileWrite written = writeProfileDifferences(comparison);
    // A command that failed may leave its staging behind; none of it is the person's.
    ClearSetMap();
    result["written"] = written.written;
    if (!written.failed.isEmpty()) {
        result["ok"] = false;
        result["state"] = "failed";
        result["failedCommand"] = written.failed;
        result["error"] = written.failed + " was not written";
        return result;
    }
    if (written.networkWritten) {
        result["state"] = "unverified";
        return result;
    }
    // Verified against the profile that was written, whatever the file holds by now.
    const QVariantMap after = verification(*this, loaded, false);
    result["after"] = after;
    result["ok"] = after["ok"].toBool() && after["verified"].toBool();
    if (!after["ok"].toBool()) {
        result["state"] = "unread";
        result["error"] = after["error"];
    } else {
        result["state"] = after["verified"].toBool() ? "verified" : "differs";
    }
    return result;
}

QVariantMap LidarUtilitiesManager::verifyProfileFile(QUrl file, bool networkPending) {
    profile::SettingsProfile loaded;
    QString error;
    if (!loadProfileFile(localPathOf(file), &loaded, &error)) return failure(error);
    return verification(*this, loaded, networkPending);
}
