#pragma once

// The settings-profile file (format 1, docs/profiles.md): a lidar's configuration captured to
// JSON so that other lidars can be compared with it and brought to it. Plain records and a strict
// reader; the checks that need the model's catalogue are made where a profile is applied.

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>
#include <optional>

namespace profile {

// The "format" value of every profile and the only "version" this program reads and writes.
extern const char* const kFormatName;
constexpr int kFormatVersion = 1;
// The set commands an apply treats apart: the network settings, after which the lidar drops the
// connection, and the field of view, written through its own path.
extern const char* const kNetworkSetCommand;
extern const char* const kFieldOfViewSetCommand;
// The field-of-view table holds five starts then five ends.
constexpr int kFieldOfViewBoundCount = 10;

// One variable: where it sits (for people), its catalogue key, the bytes as read and the value
// as people read it. setCommand is empty for the read-only entries of the record.
struct ProfileEntry {
    QString module, page, name, varId, setCommand;
    QByteArray bytes;
    QString text, unit;
};

struct ProfileFieldOfView {
    QString mode;
    QStringList bounds;  // exactly kFieldOfViewBoundCount when read from a file
};

struct SettingsProfile {
    QString model;
    QString serialNumber, partNumber, firmwareVersion;
    QString time;
    QStringList excluded;
    QVector<ProfileEntry> settings;
    std::optional<ProfileFieldOfView> fieldOfView;
    QVector<ProfileEntry> record;  // empty: not taken (written only when it holds entries)
};

bool operator==(const ProfileEntry& a, const ProfileEntry& b);
bool operator==(const ProfileFieldOfView& a, const ProfileFieldOfView& b);
bool operator==(const SettingsProfile& a, const SettingsProfile& b);
inline bool operator!=(const ProfileEntry& a, const ProfileEntry& b) {
    return !(a == b);
}
inline bool operator!=(const SettingsProfile& a, const SettingsProfile& b) {
    return !(a == b);
}

// A field-of-view bound's text in tenths of a degree; nullopt unless it is a number of 0 to 360
// degrees with at most one decimal (the lidar keeps tenths).
std::optional<int> boundTenths(const QString& text);

// One field where a lidar and a profile disagree: where it sits, both byte strings and both
// display texts. setCommand is the command that would write the profile's bytes.
struct FieldDifference {
    QString module, page, name, varId, setCommand;
    QByteArray lidarBytes, profileBytes;
    QString lidarText, profileText, unit;
};

// A lidar compared with a profile.
struct ProfileComparison {
    QStringList warnings;                  // a firmware version other than the profile's
    QVector<FieldDifference> differences;  // in catalogue order
    // Set when the profile holds a field of view: the lidar's and the profile's.
    std::optional<ProfileFieldOfView> lidarFieldOfView, profileFieldOfView;
    bool fieldOfViewDiffers() const;
    bool matches() const { return differences.isEmpty() && !fieldOfViewDiffers(); }
    // The set commands that would write the differences, in the order an apply sends them (the
    // field of view's "0x22" among them, the network command "0x21" last).
    QStringList plannedCommands() const;
};

// The profile as indented UTF-8 JSON; bytes as lowercase hexadecimal without separators.
QByteArray writeProfile(const SettingsProfile& profile);

// Reads a profile file. On a refusal returns false, leaves *out untouched and sets *error to a
// message naming the key with its path ("settings[3].bytes: ..."). Unknown keys are ignored.
bool readProfile(const QByteArray& json, SettingsProfile* out, QString* error);

}  // namespace profile
