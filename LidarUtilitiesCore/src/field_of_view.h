#pragma once

// The channel field of view: the start and end bounds (degrees) of the five regions, as the UI
// edits them and the lidar reports them. An edit stages the 0x22 command, which carries every
// bound with the next apply.
//
// Threads: any thread may edit and read; the table is kept under this object's lock, and its
// signal is emitted outside it.

#include <QObject>
#include <QString>
#include <QVariantList>
#include <array>
#include <mutex>

class EditStagingSink;
class UserMessageSink;

class FieldOfView : public QObject {
    Q_OBJECT

  public:
    static constexpr int kRegions = 5;
    using Bounds = std::array<float, 2 * kRegions>;
    // Starts of regions 1-5, then their ends.
    static constexpr Bounds kDefaultFovTable = {0, 0, 0, 0, 0, 360, 360, 360, 360, 360};

    FieldOfView(EditStagingSink& staging, UserMessageSink& messages);

    // Every bound as the UI shows it, with one decimal.
    QVariantList list() const;
    Bounds bounds() const;
    // One bound from the UI's text; a text that is not a number in 0..360 is refused and said.
    void setBound(int index, const QString& value);
    // The bounds the lidar reported for its first `count` regions: `values` holds their starts,
    // then their ends.
    void storeReported(const float* values, int count);
    void reset();

  signals:
    void fovConfigChanged();

  private:
    EditStagingSink& staging_;
    UserMessageSink& messages_;

    mutable std::mutex mutex_;
    Bounds fovTable_ = kDefaultFovTable;  // under mutex_
};
