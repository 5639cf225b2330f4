#pragma once

#include <QString>
#include <cstdint>

// One entry of the raw-command history.
struct SendCmdRecord {
    QString cmd;
    QString payload;
    QString time;
};

// One monitor variant of a model: Monitor_<version>_<number>.csv in the model's folder.
struct MonitorHwVersionInfo {
    QString version;
    int32_t number = 0;
    QString path;
};
