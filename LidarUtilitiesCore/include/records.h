#pragma once

#include <QString>
#include <cstdint>
#include <string>

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

// One component of a Heron OTA package as its header describes it: where its bytes start in the
// package's data region, how many there are, and whether the header's flags name it.
struct HeronOtaComponentInfo {
    uint32_t offset = 0;
    uint32_t size = 0;
    bool present = false;
};

// A Heron OTA package's header: the size it announces, the component flags, and the five
// components in flag-bit order.
struct HeronOtaPackageInfo {
    uint32_t total_size = 0;
    uint8_t flags = 0;
    HeronOtaComponentInfo bmb_app_a;
    HeronOtaComponentInfo bmb_app_b;
    HeronOtaComponentInfo bmb_fpga;
    HeronOtaComponentInfo tmb_fpga;
    HeronOtaComponentInfo tmb_param;
};

// One step of a Heron upgrade plan: the component's name, the type byte it is sent with, and
// where the package holds it.
struct HeronUpgradePlanEntry {
    std::string name;
    uint8_t type = 0;
    HeronOtaComponentInfo info;
};
