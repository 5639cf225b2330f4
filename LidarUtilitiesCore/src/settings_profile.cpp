#include "settings_profile.h"

#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QJsonValue>
#include <QRegularExpression>
#include <QSet>
#include <cmath>
#include <utility>

namespace profile {

const char* const kFormatName = "lidar-utilities-profile";
const char* const kNetworkSetCommand = "0x21";
const char* const kFieldOfViewSetCommand = "0x22";

bool operator==(const ProfileEntry& a, const ProfileEntry& b) {
    return a.module == b.module && a.page == b.page && a.name == b.name && a.varId == b.varId &&
           a.setCommand == b.setCommand && a.bytes == b.bytes && a.text == b.text &&
           a.unit == b.unit;
}

bool operator==(const ProfileFieldOfView& a, const ProfileFieldOfView& b) {
    return a.mode == b.mode && a.bounds == b.bounds;
}

bool operator==(const SettingsProfile& a, const SettingsProfile& b) {
    return a.model == b.model && a.serialNumber == b.serialNumber && a.partNumber == b.partNumber &&
           a.firmwareVersion == b.firmwareVersion && a.time == b.time && a.excluded == b.excluded &&
           a.settings == b.settings && a.fieldOfView == b.fieldOfView && a.record == b.record;
}

// ---- Comparing --------------------------------------------------------------------------------

std::optional<int> boundTenths(const QString& text) {
    // Plain decimals only: what the lidar reports is written so, and "1e1" or " 10" are not
    // what a person means by a bound.
    static const QRegularExpression kDecimal("^[0-9]{1,3}(\\.[0-9]+)?$");
    if (!kDecimal.match(text).hasMatch()) return std::nullopt;
    bool ok = false;
    const double degrees = text.toDouble(&ok);
    if (!ok || !(degrees >= 0.0 && degrees <= 360.0)) return std::nullopt;
    const double tenths = degrees * 10.0;
    const double whole = std::round(tenths);
    // Decimal texts such as "72.3" are not exact in binary; a whole number of tenths is within a
    // hair of one.
    if (std::fabs(tenths - whole) > 1e-6) return std::nullopt;
    return static_cast<int>(whole);
}

namespace {

bool sameFieldOfView(const ProfileFieldOfView& a, const ProfileFieldOfView& b) {
    bool okA = false, okB = false;
    if (a.mode.toInt(&okA) != b.mode.toInt(&okB) || !okA || !okB) return false;
    if (a.bounds.size() != b.bounds.size()) return false;
    for (int i = 0; i < a.bounds.size(); ++i) {
        const std::optional<int> x = boundTenths(a.bounds[i]);
        if (!x || x != boundTenths(b.bounds[i])) return false;
    }
    return true;
}

}  // namespace

bool ProfileComparison::fieldOfViewDiffers() const {
    if (!profileFieldOfView) return false;
    return !lidarFieldOfView || !sameFieldOfView(*lidarFieldOfView, *profileFieldOfView);
}

QStringList ProfileComparison::plannedCommands() const {
    QStringList commands;
    bool network = false;
    for (const FieldDifference& difference : differences) {
        if (difference.setCommand == kNetworkSetCommand)
            network = true;
        else if (!commands.contains(difference.setCommand))
            commands << difference.setCommand;
    }
    if (fieldOfViewDiffers()) commands << kFieldOfViewSetCommand;
    // The lidar drops the connection once it takes the network command.
    if (network) commands << kNetworkSetCommand;
    return commands;
}

// ---- Writing ---------------------------------------------------------------------------------
// Written by hand rather than through QJsonObject, which sorts its keys: the file keeps the order
// of the format's description (format and model first), which is what people read and diff.

namespace {

using Member = std::pair<const char*, QByteArray>;

QByteArray indentation(int level) {
    return QByteArray(2 * level, ' ');
}

// A JSON string literal with Qt's escaping (quotes, backslashes, control characters).
QByteArray quoted(const QString& text) {
    const QByteArray array = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return array.mid(1, array.size() - 2);
}

QByteArray objectText(const QVector<Member>& members, int level) {
    QByteArray text = "{\n";
    for (int i = 0; i < members.size(); ++i) {
        text += indentation(level + 1) + '"' + members[i].first + "\": " + members[i].second;
        text += i + 1 < members.size() ? ",\n" : "\n";
    }
    return text + indentation(level) + '}';
}

// Short lists of names stay on one line, as people write them.
QByteArray stringListText(const QStringList& items) {
    QByteArray text = "[";
    for (int i = 0; i < items.size(); ++i) text += (i > 0 ? ", " : "") + quoted(items[i]);
    return text + ']';
}

QByteArray entryText(const ProfileEntry& entry, bool withSetCommand, int level) {
    QVector<Member> members{{"module", quoted(entry.module)},
                            {"page", quoted(entry.page)},
                            {"name", quoted(entry.name)},
                            {"var_id", quoted(entry.varId)}};
    if (withSetCommand) members.append({"set_command", quoted(entry.setCommand)});
    members.append({"bytes", '"' + entry.bytes.toHex() + '"'});
    members.append({"text", quoted(entry.text)});
    members.append({"unit", quoted(entry.unit)});
    return objectText(members, level);
}

// Settings always carry their set command; an entry of the record carries one only if it has one.
QByteArray entriesText(const QVector<ProfileEntry>& entries, bool isSettings, int level) {
    if (entries.isEmpty()) return "[]";
    QByteArray text = "[\n";
    for (int i = 0; i < entries.size(); ++i) {
        const bool withSetCommand = isSettings || !entries[i].setCommand.isEmpty();
        text += indentation(level + 1) + entryText(entries[i], withSetCommand, level + 1);
        text += i + 1 < entries.size() ? ",\n" : "\n";
    }
    return text + indentation(level) + ']';
}

}  // namespace

QByteArray writeProfile(const SettingsProfile& profile) {
    const QVector<Member> identity{{"serial_number", quoted(profile.serialNumber)},
                                   {"part_number", quoted(profile.partNumber)},
                                   {"firmware_version", quoted(profile.firmwareVersion)}};
    QVector<Member> members{{"format", quoted(QString::fromLatin1(kFormatName))},
                            {"version", QByteArray::number(kFormatVersion)},
                            {"model", quoted(profile.model)},
                            {"identity", objectText(identity, 1)},
                            {"time", quoted(profile.time)},
                            {"excluded", stringListText(profile.excluded)},
                            {"settings", entriesText(profile.settings, true, 1)}};
    if (profile.fieldOfView) {
        const QVector<Member> fieldOfView{{"mode", quoted(profile.fieldOfView->mode)},
                                          {"bounds", stringListText(profile.fieldOfView->bounds)}};
        members.append({"field_of_view", objectText(fieldOfView, 1)});
    }
    if (!profile.record.isEmpty())
        members.append({"record", entriesText(profile.record, false, 1)});
    return objectText(members, 0) + '\n';
}

// ---- Reading ---------------------------------------------------------------------------------

namespace {

QString typeName(const QJsonValue& value) {
    switch (value.type()) {
        case QJsonValue::Null:
            return QStringLiteral("null");
        case QJsonValue::Bool:
            return QStringLiteral("a boolean");
        case QJsonValue::Double:
            return QStringLiteral("a number");
        case QJsonValue::String:
            return QStringLiteral("a string");
        case QJsonValue::Array:
            return QStringLiteral("an array");
        case QJsonValue::Object:
            return QStringLiteral("an object");
        case QJsonValue::Undefined:
            break;
    }
    return QStringLiteral("nothing");
}

// A value as it appears in a message: strings quoted and cut short, numbers as written.
QString shown(const QJsonValue& value) {
    constexpr int kLongest = 40;
    if (value.isString()) {
        const QString text = value.toString();
        return text.size() <= kLongest ? '"' + text + '"' : '"' + text.left(kLongest) + "...\"";
    }
    if (value.isDouble()) return QString::number(value.toDouble(), 'g', 17);
    if (value.isBool()) return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    return typeName(value);
}

// A string that survives being written as UTF-8 and read back: no half of a surrogate pair
// (JSON's \ud800 escapes can make one; UTF-8 cannot carry it).
bool isWholeText(const QString& text) {
    for (int i = 0; i < text.size(); ++i) {
        const QChar c = text[i];
        if (c.isHighSurrogate()) {
            if (i + 1 >= text.size() || !text[i + 1].isLowSurrogate()) return false;
            ++i;
        } else if (c.isLowSurrogate()) {
            return false;
        }
    }
    return true;
}

// "line L, column C" of a byte offset (columns counted in bytes, from 1).
QString positionOf(const QByteArray& json, int offset) {
    offset = qBound(0, offset, json.size());
    int line = 1;
    int lineStart = 0;
    for (int i = 0; i < offset; ++i) {
        if (json[i] == '\n') {
            ++line;
            lineStart = i + 1;
        }
    }
    return QStringLiteral("line %1, column %2").arg(line).arg(offset - lineStart + 1);
}

// Hexadecimal digits, two a byte, either case; nothing else.
bool decodeHex(const QString& text, QByteArray* bytes) {
    if (text.size() % 2 != 0) return false;
    for (const QChar c : text) {
        const ushort u = c.unicode();
        const bool hex = (u >= '0' && u <= '9') || (u >= 'a' && u <= 'f') || (u >= 'A' && u <= 'F');
        if (!hex) return false;
    }
    *bytes = QByteArray::fromHex(text.toLatin1());
    return true;
}

// Walks one parsed document. Each step names its key with the path to it; the first refusal
// stops the walk and keeps its message.
class ProfileReader {
  public:
    QString error;

    bool read(const QJsonObject& root, SettingsProfile* profile) {
        return readFormat(root) && readText(root, "model", "model", true, &profile->model) &&
               readIdentity(root, profile) &&
               readText(root, "time", "time", false, &profile->time) &&
               readTextList(root, "excluded", "excluded", &profile->excluded) &&
               readEntries(root, "settings", true, &profile->settings) &&
               readFieldOfView(root, profile) &&
               readEntries(root, "record", false, &profile->record);
    }

  private:
    bool refuse(const QString& path, const QString& why) {
        error = path + QStringLiteral(": ") + why;
        return false;
    }

    bool wrongType(const QString& path, const char* expected, const QJsonValue& found) {
        return refuse(
            path,
            QStringLiteral("expected %1, found %2").arg(QLatin1String(expected), typeName(found)));
    }

    // Another format, or a version this program does not know, is refused before anything else:
    // a later version may mean other things by the same keys.
    bool readFormat(const QJsonObject& root) {
        const QJsonValue format = root.value("format");
        if (format.isUndefined())
            return refuse("format", "missing: the file is not a settings profile");
        if (format != QJsonValue(QLatin1String(kFormatName)))
            return refuse("format", QStringLiteral("%1 is not \"%2\": the file is not a settings "
                                                   "profile")
                                        .arg(shown(format), QLatin1String(kFormatName)));
        const QJsonValue version = root.value("version");
        if (version.isUndefined()) return refuse("version", "missing");
        if (!version.isDouble() || version.toDouble() != kFormatVersion)
            return refuse("version", QStringLiteral("%1 is not a version this program reads (it "
                                                    "reads %2)")
                                         .arg(shown(version))
                                         .arg(kFormatVersion));
        return true;
    }

    bool readText(const QJsonObject& object, const char* key, const QString& path, bool required,
                  QString* out) {
        const QJsonValue value = object.value(QLatin1String(key));
        if (value.isUndefined()) return required ? refuse(path, "missing") : true;
        return takeText(value, path, out);
    }

    bool takeText(const QJsonValue& value, const QString& path, QString* out) {
        if (!value.isString()) return wrongType(path, "a string", value);
        if (!isWholeText(value.toString())) return refuse(path, "is not valid Unicode text");
        *out = value.toString();
        return true;
    }

    bool readObject(const QJsonObject& object, const char* key, const QString& path,
                    std::optional<QJsonObject>* out) {
        const QJsonValue value = object.value(QLatin1String(key));
        if (value.isUndefined()) return true;
        if (!value.isObject()) return wrongType(path, "an object", value);
        *out = value.toObject();
        return true;
    }

    bool readArray(const QJsonObject& object, const char* key, const QString& path, bool required,
                   QJsonArray* out) {
        const QJsonValue value = object.value(QLatin1String(key));
        if (value.isUndefined()) return required ? refuse(path, "missing") : true;
        if (!value.isArray()) return wrongType(path, "an array", value);
        *out = value.toArray();
        return true;
    }

    bool readIdentity(const QJsonObject& root, SettingsProfile* profile) {
        std::optional<QJsonObject> identity;
        if (!readObject(root, "identity", "identity", &identity)) return false;
        if (!identity) return true;
        return readText(*identity, "serial_number", "identity.serial_number", false,
                        &profile->serialNumber) &&
               readText(*identity, "part_number", "identity.part_number", false,
                        &profile->partNumber) &&
               readText(*identity, "firmware_version", "identity.firmware_version", false,
                        &profile->firmwareVersion);
    }

    bool readTextList(const QJsonObject& object, const char* key, const QString& path,
                      QStringList* out) {
        QJsonArray array;
        if (!readArray(object, key, path, false, &array)) return false;
        QStringList list;
        list.reserve(array.size());
        for (int i = 0; i < array.size(); ++i) {
            QString text;
            if (!takeText(array.at(i), QStringLiteral("%1[%2]").arg(path).arg(i), &text))
                return false;
            list.append(text);
        }
        *out = list;
        return true;
    }

    bool readFieldOfView(const QJsonObject& root, SettingsProfile* profile) {
        std::optional<QJsonObject> object;
        if (!readObject(root, "field_of_view", "field_of_view", &object)) return false;
        if (!object) return true;
        ProfileFieldOfView fieldOfView;
        if (!readText(*object, "mode", "field_of_view.mode", true, &fieldOfView.mode)) return false;
        if (!object->contains("bounds")) return refuse("field_of_view.bounds", "missing");
        if (!readTextList(*object, "bounds", "field_of_view.bounds", &fieldOfView.bounds))
            return false;
        if (fieldOfView.bounds.size() != kFieldOfViewBoundCount)
            return refuse("field_of_view.bounds",
                          QStringLiteral("%1 bounds, expected %2 (five starts, then five ends)")
                              .arg(fieldOfView.bounds.size())
                              .arg(kFieldOfViewBoundCount));
        profile->fieldOfView = fieldOfView;
        return true;
    }

    bool readEntries(const QJsonObject& root, const char* key, bool isSettings,
                     QVector<ProfileEntry>* out) {
        const QString path = QLatin1String(key);
        QJsonArray array;
        if (!readArray(root, key, path, isSettings, &array)) return false;
        QVector<ProfileEntry> entries;
        entries.reserve(array.size());
        QHash<QString, int> firstIndexOf;  // var_id -> index, for the duplicate check
        for (int i = 0; i < array.size(); ++i) {
            const QString at = QStringLiteral("%1[%2]").arg(path).arg(i);
            ProfileEntry entry;
            if (!readEntry(array.at(i), at, isSettings, &entry)) return false;
            if (isSettings) {
                const auto first = firstIndexOf.constFind(entry.varId);
                if (first != firstIndexOf.constEnd())
                    return refuse(at + ".var_id",
                                  QStringLiteral("%1 appears twice (first in %2[%3])")
                                      .arg(shown(entry.varId), path)
                                      .arg(first.value()));
                firstIndexOf.insert(entry.varId, i);
            }
            entries.append(entry);
        }
        *out = entries;
        return true;
    }

    bool readEntry(const QJsonValue& value, const QString& at, bool isSettings,
                   ProfileEntry* entry) {
        if (!value.isObject()) return wrongType(at, "an object", value);
        const QJsonObject object = value.toObject();
        QString hex;
        return readText(object, "module", at + ".module", false, &entry->module) &&
               readText(object, "page", at + ".page", false, &entry->page) &&
               readText(object, "name", at + ".name", false, &entry->name) &&
               readText(object, "var_id", at + ".var_id", true, &entry->varId) &&
               readText(object, "set_command", at + ".set_command", isSettings,
                        &entry->setCommand) &&
               readText(object, "bytes", at + ".bytes", true, &hex) &&
               readBytes(hex, at + ".bytes", &entry->bytes) &&
               readText(object, "text", at + ".text", false, &entry->text) &&
               readText(object, "unit", at + ".unit", false, &entry->unit);
    }

    bool readBytes(const QString& hex, const QString& path, QByteArray* bytes) {
        if (decodeHex(hex, bytes)) return true;
        return refuse(
            path,
            QStringLiteral("%1 is not hexadecimal bytes (two digits a byte)").arg(shown(hex)));
    }
};

}  // namespace

bool readProfile(const QByteArray& json, SettingsProfile* out, QString* error) {
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        *error = QStringLiteral("not a profile: the file is not a JSON object (%1: %2)")
                     .arg(positionOf(json, parseError.offset), parseError.errorString());
        return false;
    }
    if (!document.isObject()) {
        *error = QStringLiteral("not a profile: the file is not a JSON object (it holds %1)")
                     .arg(document.isArray() ? "an array" : "no value");
        return false;
    }
    ProfileReader reader;
    SettingsProfile profile;
    if (!reader.read(document.object(), &profile)) {
        *error = reader.error;
        return false;
    }
    *out = profile;
    return true;
}

}  // namespace profile
