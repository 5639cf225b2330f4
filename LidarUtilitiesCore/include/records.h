#pragma once

#include <QString>
#include <cstdint>

// One entry of the raw-command history: when it was sent, the command code and the payload as
// the user gave them (after cleaning).
struct SendCmdRecord {
    QString time;
    QString cmd;
    QString payload;
};

// One monitor variant of a model: Monitor_<version>_<number>.csv in the model's folder.
struct MonitorHwVersionInfo {
    QString version;
    int32_t number = 0;
    QString path;
};
