// The channel field of view (field_of_view.h).

#include "field_of_view.h"

#include <cmath>

#include "lidar_utilities_manager.h"
#include "subsystem_views.h"

namespace {

constexpr float kFullCircleDegrees = 360.0f;
const char* const kFovSetCmd = "0x22";

}  // namespace

FieldOfView::FieldOfView(EditStagingSink& staging, UserMessageSink& messages)
    : staging_(staging), messages_(messages) {}

QVariantList FieldOfView::list() const {
    QVariantList list;
    for (float value : bounds()) list.append(QString::number(value, 'f', 1));
    return list;
}

FieldOfView::Bounds FieldOfView::bounds() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return fovTable_;
}

void FieldOfView::setBound(int index, const QString& value) {
    if (index < 0 || index >= static_cast<int>(kDefaultFovTable.size())) return;

    bool ok = false;
    const double degrees = value.toDouble(&ok);
    // NaN compares false both ways, so it is refused explicitly.
    if (!ok || std::isnan(degrees) || degrees > kFullCircleDegrees || degrees < 0.0) {
        messages_.showError("Input value of fov is invalid");
        // The UI puts the stored bounds back into its fields.
        emit fovConfigChanged();
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        fovTable_[index] = static_cast<float>(degrees);
    }
    // All bounds travel together with the next apply.
    staging_.stageCommand(kFovSetCmd);
}

void FieldOfView::storeReported(const float* values, int count) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (int i = 0; i < count && i < kRegions; ++i) {
        fovTable_[i] = values[i];
        fovTable_[kRegions + i] = values[count + i];
    }
}

void FieldOfView::reset() {
    std::lock_guard<std::mutex> lock(mutex_);
    fovTable_ = kDefaultFovTable;
}

// ---- The façade's field-of-view operations ----

QVariantList LidarUtilitiesManager::getFovList() const {
    return fov_->list();
}

void LidarUtilitiesManager::SetMultiFovConfig(int index, QString value) {
    fov_->setBound(index, value);
}
