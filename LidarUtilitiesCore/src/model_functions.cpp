// Model-specific device functions: the channel field-of-view table.

#include <cmath>

#include "lidar_utilities_manager.h"

namespace {

constexpr float kFullCircleDegrees = 360.0f;

}  // namespace

QVariantList LidarUtilitiesManager::getFovList() const {
    std::array<float, 10> table;
    {
        std::lock_guard<std::mutex> lock(fieldsMutex_);
        table = fovTable;
    }
    QVariantList list;
    for (float value : table) list.append(QString::number(value, 'f', 1));
    return list;
}

void LidarUtilitiesManager::SetMultiFovConfig(int index, QString value) {
    if (index < 0 || index >= static_cast<int>(kDefaultFovTable.size())) return;

    bool ok = false;
    const double degrees = value.toDouble(&ok);
    // NaN compares false both ways, so it is refused explicitly.
    if (!ok || std::isnan(degrees) || degrees > kFullCircleDegrees || degrees < 0.0) {
        showErrorMessage("Input value of fov is invalid");
        // The UI puts the stored bounds back into its fields.
        emit fovConfigChanged();
        return;
    }
    {
        std::lock_guard<std::mutex> lock(fieldsMutex_);
        fovTable[index] = static_cast<float>(degrees);
    }
    // All bounds travel together with the next apply.
    setMap["0x22"] = true;
}

void LidarUtilitiesManager::resetFovTable() {
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    fovTable = kDefaultFovTable;
}
