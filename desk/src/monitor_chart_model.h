#pragma once

// The window's live monitor charts, kept for the whole session: every monitor reading the
// manager announces becomes a point, whichever view is on screen, so that a person who comes back
// to the Monitor view finds the last minutes drawn. The charts are a
// monitorcharts::MonitorChartSet (the ones lidarutil monitor --plot draws); MonitorChartItem only
// paints them. Lives on the UI thread: the readings, announced on the thread that read, reach it
// queued. A reading is kept aside until the charts are looked at (drawn, or asked about): fitting
// a dozen charts' axes takes the UI thread some 30 ms a reading, which nobody should pay for
// charts that are not on screen.

#include <QDateTime>
#include <QObject>
#include <QStringList>
#include <QVariantList>
#include <memory>

#include "charts/monitor_charts.h"

class LidarUtilitiesManager;

class MonitorChartModel : public QObject {
    Q_OBJECT
    // The labels of the values, as a record header writes them ("Input Voltage (V)"). New labels
    // start empty charts.
    Q_PROPERTY(QStringList columns READ columns NOTIFY columnsChanged)
    // The indexes of the columns drawn, in the order chosen.
    Q_PROPERTY(QVariantList shownColumns READ shownColumns WRITE setShownColumns NOTIFY
                   shownColumnsChanged)
    // How far back the charts reach, in seconds.
    Q_PROPERTY(
        double windowSeconds READ windowSeconds WRITE setWindowSeconds NOTIFY windowSecondsChanged)
    // The readings taken since the charts (re)started, failed ones included.
    Q_PROPERTY(int rowCount READ rowCount NOTIFY rowsChanged)

  public:
    explicit MonitorChartModel(QObject* parent = nullptr);
    ~MonitorChartModel() override;

    // Takes the manager's monitor readings, and its columns whenever a model or a variant is
    // loaded, for as long as both live.
    void follow(LidarUtilitiesManager& manager);

    QStringList columns() const { return columns_; }
    // Other columns start empty charts, the first two shown; the same columns change nothing.
    void setColumns(const QStringList& columns);
    QVariantList shownColumns() const { return shown_; }
    void setShownColumns(const QVariantList& shown);
    double windowSeconds() const { return charts_->timeWindow(); }
    void setWindowSeconds(double seconds);
    int rowCount() const { return charts_->rowCount() + pendingTimes_.size() + pendingDropped_; }
    // The readings kept aside, not yet in the charts: never more than the window holds.
    int readingsAside() const { return pendingTimes_.size(); }

    // One reading taken at `time`: values[i] belongs to columns[i]; an empty value is a failed
    // reading. A reading of other columns than the charts' (a variant read just before another
    // was applied) is left out.
    void appendReading(const QDateTime& time, const QStringList& columns,
                       const QStringList& values);
    // Empties the charts, keeping the columns, the choice and the window.
    Q_INVOKABLE void clear();

    // What chart `column` holds and shows, for the view and its tests.
    Q_INVOKABLE int pointCount(int column) const { return settled().pointCount(column); }
    Q_INVOKABLE QString chartTitle(int column) const;
    Q_INVOKABLE QString valueAxisTitle(int column) const;
    Q_INVOKABLE QString timeAxisTitle(int column) const;
    // The colour of the chart's line; transparent before its first point.
    Q_INVOKABLE QColor seriesColor(int column) const;

    // The charts drawn: the shown indexes that name a chart, in the order chosen, each once.
    Q_INVOKABLE QList<int> drawnColumns() const;
    const monitorcharts::MonitorChartSet& charts() const { return settled(); }

  signals:
    void columnsChanged();
    void shownColumnsChanged();
    void windowSecondsChanged();
    void rowsChanged();
    // Anything drawn changed: the points, the axes, the charts chosen.
    void chartsChanged();

  private:
    void startCharts();
    void takeReading(const QStringList& columns, const QStringList& values);
    // The charts with every reading kept aside added.
    const monitorcharts::MonitorChartSet& settled() const;
    void dropPendingOutsideWindow();

    QStringList columns_;
    QVariantList shown_;
    double windowSeconds_;
    std::unique_ptr<monitorcharts::MonitorChartSet> charts_;  // never null
    // Readings not yet in the charts, oldest first, and those the window left behind before
    // they got there (still counted as readings taken).
    mutable QVector<QDateTime> pendingTimes_;
    mutable QVector<QStringList> pendingRows_;
    int pendingDropped_ = 0;
};
