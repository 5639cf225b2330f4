// The settings-profile file: what is written is the documented JSON, what is read back is what
// was written, and every refusal names the key with its path.

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <functional>

#include "settings_profile.h"

// Messages are shown as text when a check fails.
inline void PrintTo(const QString& text, std::ostream* out) {
    *out << '"' << text.toStdString() << '"';
}

namespace {

using profile::ProfileEntry;
using profile::ProfileFieldOfView;
using profile::SettingsProfile;

ProfileEntry entry(const QString& varId, const QString& setCommand, const QByteArray& bytes) {
    ProfileEntry e;
    e.module = "Network";
    e.page = "Lidar Address";
    e.name = "Name of " + varId;
    e.varId = varId;
    e.setCommand = setCommand;
    e.bytes = bytes;
    e.text = "text of " + varId;
    e.unit = "unit of " + varId;
    return e;
}

// Every field set, with text that needs escaping and bytes of every kind.
SettingsProfile fullProfile() {
    SettingsProfile p;
    p.model = "Model \"A\"";
    p.serialNumber = "SN-0123";
    p.partNumber = "PN\\7";
    p.firmwareVersion = QString::fromUtf8("FW 2.4 \xC2\xB5 \xF0\x9F\x98\x80");
    p.time = "2026-11-26T21:30:00Z";
    p.excluded = QStringList{"IP Address", "MAC Address"};
    p.settings = {entry("data_port", "0x0021", QByteArray::fromHex("0940")),
                  entry("mask", "0x0022", QByteArray::fromHex("00ff0aAB")),
                  entry("empty", "0x0023", QByteArray())};
    p.settings[1].text = "line\nbreak\ttab";
    p.settings[2].unit = "";
    p.fieldOfView = ProfileFieldOfView{
        "1",
        {"0.0", "72.0", "144.0", "216.0", "288.0", "72.0", "144.0", "216.0", "288.0", "360.0"}};
    p.record = {entry("hwver", "", QByteArray::fromHex("0102")),
                entry("fwver", "0x0099", QByteArray::fromHex("ff"))};
    return p;
}

QJsonObject written(const SettingsProfile& p) {
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(profile::writeProfile(p), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << error.errorString().toStdString();
    return document.object();
}

// A valid minimal profile as a JSON object, changed by the case before it is read.
QJsonObject validObject() {
    QJsonObject setting{{"var_id", "ip"}, {"set_command", "0x10"}, {"bytes", "0a000001"}};
    QJsonObject other{{"var_id", "port"}, {"set_command", "0x11"}, {"bytes", "0940"}};
    QJsonObject recorded{{"var_id", "hwver"}, {"bytes", "01"}};
    return QJsonObject{{"format", "lidar-utilities-profile"},
                       {"version", 1},
                       {"model", "M"},
                       {"settings", QJsonArray{setting, other}},
                       {"record", QJsonArray{recorded}}};
}

QJsonObject changed(const std::function<void(QJsonObject&)>& change) {
    QJsonObject object = validObject();
    change(object);
    return object;
}

// Sets root[key][index][field] (value undefined: removes it).
void setInEntry(QJsonObject& root, const char* key, int index, const char* field,
                const QJsonValue& value) {
    QJsonArray array = root[key].toArray();
    QJsonObject item = array[index].toObject();
    if (value.isUndefined())
        item.remove(field);
    else
        item[field] = value;
    array[index] = item;
    root[key] = array;
}

QString refusal(const QByteArray& json) {
    SettingsProfile out;
    out.model = "untouched";
    QString error;
    const bool read = profile::readProfile(json, &out, &error);
    EXPECT_FALSE(read) << json.toStdString();
    EXPECT_EQ(out.model, "untouched") << "a refused file must leave the profile as it was";
    return error;
}

QString refusal(const QJsonObject& object) {
    return refusal(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

TEST(SettingsProfile, WhatIsWrittenReadsBackEqualInEveryField) {
    const SettingsProfile original = fullProfile();
    SettingsProfile read;
    QString error;
    ASSERT_TRUE(profile::readProfile(profile::writeProfile(original), &read, &error))
        << error.toStdString();
    EXPECT_TRUE(read == original);
    // Field by field as well, so that a fault in the comparison cannot hide one in the reader.
    EXPECT_EQ(read.model, original.model);
    EXPECT_EQ(read.serialNumber, original.serialNumber);
    EXPECT_EQ(read.partNumber, original.partNumber);
    EXPECT_EQ(read.firmwareVersion, original.firmwareVersion);
    EXPECT_EQ(read.time, original.time);
    EXPECT_EQ(read.excluded, original.excluded);
    ASSERT_EQ(read.settings.size(), original.settings.size());
    for (int i = 0; i < read.settings.size(); ++i) {
        const ProfileEntry& a = read.settings[i];
        const ProfileEntry& b = original.settings[i];
        EXPECT_EQ(a.module, b.module);
        EXPECT_EQ(a.page, b.page);
        EXPECT_EQ(a.name, b.name);
        EXPECT_EQ(a.varId, b.varId);
        EXPECT_EQ(a.setCommand, b.setCommand);
        EXPECT_EQ(a.bytes, b.bytes);
        EXPECT_EQ(a.text, b.text);
        EXPECT_EQ(a.unit, b.unit);
    }
    ASSERT_TRUE(read.fieldOfView.has_value());
    EXPECT_EQ(read.fieldOfView->mode, "1");
    EXPECT_EQ(read.fieldOfView->bounds, original.fieldOfView->bounds);
    ASSERT_EQ(read.record.size(), 2);
    EXPECT_EQ(read.record[0].setCommand, "");
    EXPECT_EQ(read.record[1].setCommand, "0x0099");
    EXPECT_EQ(read.record[1].bytes, QByteArray::fromHex("ff"));
}

TEST(SettingsProfile, ProfilesDifferingInAnyOneFieldAreNotEqual) {
    const SettingsProfile base = fullProfile();
    const std::vector<std::function<void(SettingsProfile&)>> changes{
        [](SettingsProfile& p) { p.model += "x"; },
        [](SettingsProfile& p) { p.serialNumber += "x"; },
        [](SettingsProfile& p) { p.partNumber += "x"; },
        [](SettingsProfile& p) { p.firmwareVersion += "x"; },
        [](SettingsProfile& p) { p.time += "x"; },
        [](SettingsProfile& p) { p.excluded.append("x"); },
        [](SettingsProfile& p) { p.settings[0].module += "x"; },
        [](SettingsProfile& p) { p.settings[0].page += "x"; },
        [](SettingsProfile& p) { p.settings[0].name += "x"; },
        [](SettingsProfile& p) { p.settings[0].varId += "x"; },
        [](SettingsProfile& p) { p.settings[0].setCommand += "x"; },
        [](SettingsProfile& p) { p.settings[0].bytes += 'x'; },
        [](SettingsProfile& p) { p.settings[0].text += "x"; },
        [](SettingsProfile& p) { p.settings[0].unit += "x"; },
        [](SettingsProfile& p) { p.fieldOfView->mode += "x"; },
        [](SettingsProfile& p) { p.fieldOfView->bounds[9] += "x"; },
        [](SettingsProfile& p) { p.fieldOfView.reset(); },
        [](SettingsProfile& p) { p.record[1].bytes.clear(); },
    };
    for (size_t i = 0; i < changes.size(); ++i) {
        SettingsProfile other = base;
        changes[i](other);
        EXPECT_FALSE(other == base) << "change " << i;
        EXPECT_TRUE(other != base) << "change " << i;
    }
    EXPECT_TRUE(SettingsProfile(base) == base);
}

TEST(SettingsProfile, WrittenFileIsTheDocumentedJson) {
    const QByteArray text = profile::writeProfile(fullProfile());
    EXPECT_TRUE(text.startsWith("{\n  \"format\": \"lidar-utilities-profile\",\n  \"version\": 1,"))
        << text.toStdString();
    EXPECT_TRUE(text.endsWith("}\n"));
    const QJsonObject root = written(fullProfile());
    EXPECT_EQ(root["format"].toString(), "lidar-utilities-profile");
    EXPECT_EQ(root["version"].toDouble(), 1.0);
    EXPECT_EQ(root["model"].toString(), "Model \"A\"");
    const QJsonObject identity = root["identity"].toObject();
    EXPECT_EQ(identity["serial_number"].toString(), "SN-0123");
    EXPECT_EQ(identity["part_number"].toString(), "PN\\7");
    EXPECT_EQ(identity["firmware_version"].toString(), fullProfile().firmwareVersion);
    EXPECT_EQ(root["time"].toString(), "2026-11-26T21:30:00Z");
    EXPECT_EQ(root["excluded"].toArray(), (QJsonArray{"IP Address", "MAC Address"}));

    const QJsonArray settings = root["settings"].toArray();
    ASSERT_EQ(settings.size(), 3);
    const QJsonObject mask = settings[1].toObject();
    EXPECT_EQ(mask["bytes"].toString(), "00ff0aab") << "lowercase, two digits a byte";
    EXPECT_EQ(mask["var_id"].toString(), "mask");
    EXPECT_EQ(mask["set_command"].toString(), "0x0022");
    EXPECT_EQ(mask["module"].toString(), "Network");
    EXPECT_EQ(mask["page"].toString(), "Lidar Address");
    EXPECT_EQ(mask["name"].toString(), "Name of mask");
    EXPECT_EQ(mask["text"].toString(), "line\nbreak\ttab");
    EXPECT_EQ(mask["unit"].toString(), "unit of mask");
    EXPECT_EQ(settings[2].toObject()["bytes"].toString(), "");
    EXPECT_TRUE(settings[2].toObject().contains("set_command"));

    const QJsonObject fieldOfView = root["field_of_view"].toObject();
    EXPECT_EQ(fieldOfView["mode"].toString(), "1");
    EXPECT_EQ(fieldOfView["bounds"].toArray().size(), 10);
    const QJsonArray record = root["record"].toArray();
    ASSERT_EQ(record.size(), 2);
    EXPECT_FALSE(record[0].toObject().contains("set_command")) << "read-only: no set command";
    EXPECT_EQ(record[0].toObject()["bytes"].toString(), "0102");
}

TEST(SettingsProfile, WithoutFieldOfViewOrRecordNeitherKeyIsWrittenNorRead) {
    SettingsProfile original = fullProfile();
    original.fieldOfView.reset();
    original.record.clear();
    const QJsonObject root = written(original);
    EXPECT_FALSE(root.contains("field_of_view"));
    EXPECT_FALSE(root.contains("record"));
    EXPECT_TRUE(root.contains("settings"));

    SettingsProfile read = fullProfile();  // filled, so that leftovers would show
    QString error;
    ASSERT_TRUE(profile::readProfile(profile::writeProfile(original), &read, &error));
    EXPECT_FALSE(read.fieldOfView.has_value());
    EXPECT_TRUE(read.record.isEmpty());
    EXPECT_TRUE(read == original);

    // The smallest file: no identity, time or exclusions either.
    const QByteArray minimal =
        R"({"format":"lidar-utilities-profile","version":1,"model":"M","settings":[]})";
    ASSERT_TRUE(profile::readProfile(minimal, &read, &error)) << error.toStdString();
    EXPECT_EQ(read.model, "M");
    EXPECT_TRUE(read.serialNumber.isEmpty() && read.time.isEmpty() && read.excluded.isEmpty());
    EXPECT_TRUE(read.settings.isEmpty());
    EXPECT_FALSE(read.fieldOfView.has_value());
}

TEST(SettingsProfile, UnknownKeysAreIgnoredAtEveryLevel) {
    QJsonObject object = validObject();
    object["comment"] = "from a later version";
    object["identity"] = QJsonObject{{"serial_number", "S1"}, {"site", QJsonArray{1, 2}}};
    object["field_of_view"] =
        QJsonObject{{"mode", "2"},
                    {"bounds", QJsonArray{"0", "1", "2", "3", "4", "5", "6", "7", "8", "9"}},
                    {"scale", 3}};
    setInEntry(object, "settings", 0, "checksum", QJsonObject{{"x", 1}});
    setInEntry(object, "record", 0, "origin", true);

    SettingsProfile read;
    QString error;
    ASSERT_TRUE(profile::readProfile(QJsonDocument(object).toJson(), &read, &error))
        << error.toStdString();
    EXPECT_EQ(read.serialNumber, "S1");
    ASSERT_TRUE(read.fieldOfView.has_value());
    EXPECT_EQ(read.fieldOfView->mode, "2");
    EXPECT_EQ(read.fieldOfView->bounds.last(), "9");
    ASSERT_EQ(read.settings.size(), 2);
    EXPECT_EQ(read.settings[0].varId, "ip");
    EXPECT_EQ(read.settings[0].bytes, QByteArray::fromHex("0a000001"));
    EXPECT_EQ(read.settings[1].setCommand, "0x11");
    ASSERT_EQ(read.record.size(), 1);
    EXPECT_EQ(read.record[0].varId, "hwver");
}

TEST(SettingsProfile, BytesAreReadInEitherCase) {
    QJsonObject object = validObject();
    setInEntry(object, "settings", 0, "bytes", "0aFFbC");
    setInEntry(object, "settings", 1, "bytes", "");
    SettingsProfile read;
    QString error;
    ASSERT_TRUE(profile::readProfile(QJsonDocument(object).toJson(), &read, &error))
        << error.toStdString();
    EXPECT_EQ(read.settings[0].bytes, QByteArray("\x0a\xff\xbc", 3));
    EXPECT_TRUE(read.settings[1].bytes.isEmpty());
}

TEST(SettingsProfile, RefusesWhatIsNotAProfileBeforeAnythingElse) {
    const QString broken = refusal(QByteArray("{\n  \"format\": x\n}"));
    EXPECT_TRUE(broken.startsWith("not a profile: the file is not a JSON object (line 2, column "))
        << broken.toStdString();
    EXPECT_TRUE(
        refusal(QByteArray("")).startsWith("not a profile: the file is not a JSON object ("));
    EXPECT_EQ(refusal(QByteArray("[1, 2]")),
              "not a profile: the file is not a JSON object (it holds an array)");

    EXPECT_EQ(refusal(changed([](QJsonObject& o) { o.remove("format"); })),
              "format: missing: the file is not a settings profile");
    EXPECT_EQ(refusal(changed([](QJsonObject& o) { o["format"] = "other-profile"; })),
              "format: \"other-profile\" is not \"lidar-utilities-profile\": the file is not a "
              "settings profile");
    EXPECT_EQ(refusal(changed([](QJsonObject& o) { o["version"] = 2; })),
              "version: 2 is not a version this program reads (it reads 1)");
    EXPECT_EQ(refusal(changed([](QJsonObject& o) { o["version"] = 1.5; })),
              "version: 1.5 is not a version this program reads (it reads 1)");
    EXPECT_EQ(refusal(changed([](QJsonObject& o) { o["version"] = "1"; })),
              "version: \"1\" is not a version this program reads (it reads 1)");
    EXPECT_EQ(refusal(changed([](QJsonObject& o) { o.remove("version"); })), "version: missing");

    // A wrong format or version is what is reported, whatever else is wrong.
    EXPECT_EQ(refusal(changed([](QJsonObject& o) {
                  o["format"] = 7;
                  o.remove("model");
              })),
              "format: 7 is not \"lidar-utilities-profile\": the file is not a settings profile");
    EXPECT_EQ(refusal(changed([](QJsonObject& o) {
                  o["version"] = 3;
                  o["settings"] = "none";
              })),
              "version: 3 is not a version this program reads (it reads 1)");
}

TEST(SettingsProfile, RefusesMissingOrMistypedKeysNamingThePath) {
    const QJsonValue gone(QJsonValue::Undefined);  // the key is removed
    EXPECT_EQ(refusal(changed([](QJsonObject& o) { o.remove("model"); })), "model: missing");
    EXPECT_EQ(refusal(changed([](QJsonObject& o) { o["model"] = 4; })),
              "model: expected a string, found a number");
    EXPECT_EQ(refusal(changed([](QJsonObject& o) { o.remove("settings"); })), "settings: missing");
    EXPECT_EQ(refusal(changed([](QJsonObject& o) { o["settings"] = QJsonObject(); })),
              "settings: expected an array, found an object");
    EXPECT_EQ(refusal(changed([](QJsonObject& o) {
                  o["settings"] = QJsonArray{o["settings"].toArray()[0], "ip"};
              })),
              "settings[1]: expected an object, found a string");
    EXPECT_EQ(
        refusal(changed([&](QJsonObject& o) { setInEntry(o, "settings", 1, "var_id", gone); })),
        "settings[1].var_id: missing");
    EXPECT_EQ(refusal(changed([](QJsonObject& o) { setInEntry(o, "settings", 1, "var_id", 5); })),
              "settings[1].var_id: expected a string, found a number");
    EXPECT_EQ(
        refusal(changed([&](QJsonObject& o) { setInEntry(o, "settings", 0, "bytes", gone); })),
        "settings[0].bytes: missing");
    EXPECT_EQ(refusal(changed([](QJsonObject& o) { setInEntry(o, "settings", 0, "bytes", 10); })),
              "settings[0].bytes: expected a string, found a number");
    EXPECT_EQ(refusal(changed(
                  [&](QJsonObject& o) { setInEntry(o, "settings", 1, "set_command", gone); })),
              "settings[1].set_command: missing");
    EXPECT_EQ(refusal(changed([](QJsonObject& o) {
                  setInEntry(o, "settings", 1, "set_command", QJsonValue::Null);
              })),
              "settings[1].set_command: expected a string, found null");
    EXPECT_EQ(refusal(changed([&](QJsonObject& o) { setInEntry(o, "record", 0, "var_id", gone); })),
              "record[0].var_id: missing");
    EXPECT_EQ(refusal(changed([&](QJsonObject& o) { setInEntry(o, "record", 0, "bytes", gone); })),
              "record[0].bytes: missing");
    EXPECT_EQ(refusal(changed([](QJsonObject& o) { o["record"] = true; })),
              "record: expected an array, found a boolean");

    // The keys that are only for people may be left out, but not be of another type.
    EXPECT_EQ(refusal(changed([](QJsonObject& o) { setInEntry(o, "settings", 0, "unit", 1); })),
              "settings[0].unit: expected a string, found a number");
    EXPECT_EQ(refusal(changed([](QJsonObject& o) { setInEntry(o, "settings", 0, "module", 1); })),
              "settings[0].module: expected a string, found a number");
    EXPECT_EQ(refusal(changed([](QJsonObject& o) { setInEntry(o, "settings", 0, "page", 1); })),
              "settings[0].page: expected a string, found a number");
    EXPECT_EQ(refusal(changed([](QJsonObject& o) { setInEntry(o, "settings", 0, "name", 1); })),
              "settings[0].name: expected a string, found a number");
    EXPECT_EQ(refusal(changed([](QJsonObject& o) { setInEntry(o, "settings", 0, "text", 1); })),
              "settings[0].text: expected a string, found a number");
    EXPECT_EQ(refusal(changed([](QJsonObject& o) { o["time"] = 0; })),
              "time: expected a string, found a number");
    EXPECT_EQ(refusal(changed([](QJsonObject& o) { o["identity"] = "me"; })),
              "identity: expected an object, found a string");
    EXPECT_EQ(refusal(changed([](QJsonObject& o) {
                  o["identity"] = QJsonObject{{"firmware_version", 2}};
              })),
              "identity.firmware_version: expected a string, found a number");
    EXPECT_EQ(refusal(changed([](QJsonObject& o) {
                  o["identity"] = QJsonObject{{"part_number", 2}};
              })),
              "identity.part_number: expected a string, found a number");
    EXPECT_EQ(refusal(changed([](QJsonObject& o) {
                  o["identity"] = QJsonObject{{"serial_number", 2}};
              })),
              "identity.serial_number: expected a string, found a number");
    EXPECT_EQ(refusal(changed([](QJsonObject& o) { o["excluded"] = "IP Address"; })),
              "excluded: expected an array, found a string");
    EXPECT_EQ(refusal(changed([](QJsonObject& o) {
                  o["excluded"] = QJsonArray{"IP", 3};
              })),
              "excluded[1]: expected a string, found a number");
}

TEST(SettingsProfile, RefusesBytesThatAreNotEvenHexDigits) {
    for (const char* bytes : {"0g", "abc", "0x00", "00 01", "0-", "\xC3\xA9\xC3\xA9"}) {
        const QString text = QString::fromUtf8(bytes);
        EXPECT_EQ(
            refusal(changed([&](QJsonObject& o) { setInEntry(o, "settings", 1, "bytes", text); })),
            "settings[1].bytes: \"" + text + "\" is not hexadecimal bytes (two digits a byte)");
    }
    EXPECT_EQ(refusal(changed([](QJsonObject& o) { setInEntry(o, "record", 0, "bytes", "zz"); })),
              "record[0].bytes: \"zz\" is not hexadecimal bytes (two digits a byte)");
    const QString longText(60, 'q');
    EXPECT_EQ(
        refusal(changed([&](QJsonObject& o) { setInEntry(o, "settings", 0, "bytes", longText); })),
        "settings[0].bytes: \"" + QString(40, 'q') +
            "...\" is not hexadecimal bytes (two digits a byte)");
}

TEST(SettingsProfile, RefusesAVariableTwiceInSettingsOnly) {
    EXPECT_EQ(refusal(changed([](QJsonObject& o) {
                  QJsonArray settings = o["settings"].toArray();
                  settings.append(settings[0]);
                  o["settings"] = settings;
              })),
              "settings[2].var_id: \"ip\" appears twice (first in settings[0])");
    EXPECT_EQ(
        refusal(changed([](QJsonObject& o) { setInEntry(o, "settings", 1, "var_id", "ip"); })),
        "settings[1].var_id: \"ip\" appears twice (first in settings[0])");

    // The record may repeat a variable of the settings or itself: nothing is written from it.
    QJsonObject object = validObject();
    object["record"] = QJsonArray{QJsonObject{{"var_id", "ip"}, {"bytes", "00"}},
                                  QJsonObject{{"var_id", "ip"}, {"bytes", "01"}}};
    SettingsProfile read;
    QString error;
    EXPECT_TRUE(profile::readProfile(QJsonDocument(object).toJson(), &read, &error))
        << error.toStdString();
    EXPECT_EQ(read.record.size(), 2);
}

TEST(SettingsProfile, RefusesAFieldOfViewWithoutItsModeAndTenBounds) {
    const QJsonArray ten{"0", "1", "2", "3", "4", "5", "6", "7", "8", "9"};
    EXPECT_EQ(refusal(changed([](QJsonObject& o) { o["field_of_view"] = QJsonArray(); })),
              "field_of_view: expected an object, found an array");
    EXPECT_EQ(refusal(changed([&](QJsonObject& o) {
                  o["field_of_view"] = QJsonObject{{"bounds", ten}};
              })),
              "field_of_view.mode: missing");
    EXPECT_EQ(refusal(changed([](QJsonObject& o) {
                  o["field_of_view"] = QJsonObject{{"mode", "1"}};
              })),
              "field_of_view.bounds: missing");
    QJsonArray nine = ten;
    nine.removeLast();
    EXPECT_EQ(refusal(changed([&](QJsonObject& o) {
                  o["field_of_view"] = QJsonObject{{"mode", "1"}, {"bounds", nine}};
              })),
              "field_of_view.bounds: 9 bounds, expected 10 (five starts, then five ends)");
    QJsonArray eleven = ten;
    eleven.append("10");
    EXPECT_EQ(refusal(changed([&](QJsonObject& o) {
                  o["field_of_view"] = QJsonObject{{"mode", "1"}, {"bounds", eleven}};
              })),
              "field_of_view.bounds: 11 bounds, expected 10 (five starts, then five ends)");
    QJsonArray withNumber = ten;
    withNumber[3] = 3.0;
    EXPECT_EQ(refusal(changed([&](QJsonObject& o) {
                  o["field_of_view"] = QJsonObject{{"mode", "1"}, {"bounds", withNumber}};
              })),
              "field_of_view.bounds[3]: expected a string, found a number");
    EXPECT_EQ(refusal(changed([&](QJsonObject& o) {
                  o["field_of_view"] = QJsonObject{{"mode", 1}, {"bounds", ten}};
              })),
              "field_of_view.mode: expected a string, found a number");
}

TEST(SettingsProfile, RefusesTextThatCannotBeWrittenBack) {
    // Half a surrogate pair reads from a \u escape but has no UTF-8 form.
    const QByteArray json = R"({"format":"lidar-utilities-profile","version":1,"model":"M\ud800",)"
                            R"("settings":[]})";
    EXPECT_EQ(refusal(json), "model: is not valid Unicode text");
    const QByteArray lowHalf = R"({"format":"lidar-utilities-profile","version":1,"model":"M",)"
                               R"("excluded":["\udc00x"],"settings":[]})";
    EXPECT_EQ(refusal(lowHalf), "excluded[0]: is not valid Unicode text");
    // A whole pair is a character like any other.
    const QByteArray pair =
        R"({"format":"lidar-utilities-profile","version":1,"model":"\ud83d\ude00",)"
        R"("settings":[]})";
    SettingsProfile read;
    QString error;
    ASSERT_TRUE(profile::readProfile(pair, &read, &error)) << error.toStdString();
    EXPECT_EQ(read.model, QString::fromUtf8("\xF0\x9F\x98\x80"));
}

TEST(SettingsProfile, ALargeProfileReadsBackWhole) {
    SettingsProfile original = fullProfile();
    original.settings.clear();
    for (int i = 0; i < 20000; ++i)
        original.settings.append(
            entry(QString("var_%1").arg(i), "0x0100", QByteArray(16, static_cast<char>(i & 0xff))));
    SettingsProfile read;
    QString error;
    ASSERT_TRUE(profile::readProfile(profile::writeProfile(original), &read, &error))
        << error.toStdString();
    EXPECT_TRUE(read == original);
    EXPECT_EQ(read.settings.last().varId, "var_19999");
}

}  // namespace
