#include "monitor_chart_model.h"

#include <QColor>
#include <QtCharts/QChart>
#include <QtCharts/QLineSeries>

#include "lidar_utilities_manager.h"

namespace {

constexpr int kFirstShown = 2;
constexpr double kDefaultWindowSeconds = 300;

// A chart set is made for one list of columns: other columns, or a fresh start, take a new one.
std::unique_ptr<monitorcharts::MonitorChartSet> newCharts(const QStringList& columns,
                                                          double windowSeconds) {
    auto charts = std::make_unique<monitorcharts::MonitorChartSet>(columns);
    charts->setTimeWindow(windowSeconds);
    return charts;
}

QtCharts::QAbstractAxis* axisOf(const QtCharts::QChart* chart, Qt::Orientation orientation) {
    const QList<QtCharts::QAbstractAxis*> axes =
        chart ? chart->axes(orientation) : QList<QtCharts::QAbstractAxis*>();
    return axes.isEmpty() ? nullptr : axes.front();
}

}  // namespace

MonitorChartModel::MonitorChartModel(QObject* parent)
    : QObject(parent),
      windowSeconds_(kDefaultWindowSeconds),
      charts_(newCharts(columns_, windowSeconds_)) {}

MonitorChartModel::~MonitorChartModel() = default;

void MonitorChartModel::follow(LidarUtilitiesManager& manager) {
    // The readings come from the queue's thread and the manager's own threads: queued here, to
    // the thread the charts (graphics items) belong to.
    connect(&manager, &LidarUtilitiesManager::monitorReadingTaken, this,
            &MonitorChartModel::takeReading, Qt::QueuedConnection);
    // Every model load and every variant applied announce the variant, after the monitor module
    // holds its pages: the record's columns are read again then.
    const auto takeColumns = [this, &manager] { setColumns(manager.getMonitorColumns()); };
    connect(&manager, &LidarUtilitiesManager::currentMonitorHwVersionChanged, this, takeColumns);
    takeColumns();
}

void MonitorChartModel::setColumns(const QStringList& columns) {
    if (columns == columns_) return;
    columns_ = columns;
    QVariantList shown;
    for (int column = 0; column < std::min(kFirstShown, static_cast<int>(columns.size())); ++column)
        shown << column;
    shown_ = shown;
    startCharts();
    emit columnsChanged();
    emit shownColumnsChanged();
}

void MonitorChartModel::setShownColumns(const QVariantList& shown) {
    if (shown == shown_) return;
    shown_ = shown;
    emit shownColumnsChanged();
    emit chartsChanged();
}

void MonitorChartModel::setWindowSeconds(double seconds) {
    if (seconds == windowSeconds_) return;
    windowSeconds_ = seconds;
    settled();
    charts_->setTimeWindow(seconds);
    emit windowSecondsChanged();
    emit chartsChanged();
}

void MonitorChartModel::takeReading(const QStringList& columns, const QStringList& values) {
    appendReading(QDateTime::currentDateTime(), columns, values);
}

void MonitorChartModel::appendReading(const QDateTime& time, const QStringList& columns,
                                      const QStringList& values) {
    if (columns != columns_) return;
    pendingTimes_.push_back(time);
    pendingRows_.push_back(values);
    dropPendingOutsideWindow();
    emit rowsChanged();
    emit chartsChanged();
}

// A reading the window has left behind would be dropped as soon as it reached the charts. The
// first reading of the charts stays: their time axis counts from it.
void MonitorChartModel::dropPendingOutsideWindow() {
    if (windowSeconds_ <= 0 || pendingTimes_.isEmpty()) return;
    const QDateTime start =
        pendingTimes_.back().addMSecs(static_cast<qint64>(-windowSeconds_ * 1000));
    const int keepFirst = charts_->rowCount() == 0 ? 1 : 0;
    int old = keepFirst;
    while (old < pendingTimes_.size() - 1 && pendingTimes_[old] < start) ++old;
    const int dropped = old - keepFirst;
    if (dropped <= 0) return;
    pendingTimes_.remove(keepFirst, dropped);
    pendingRows_.remove(keepFirst, dropped);
    pendingDropped_ += dropped;
}

const monitorcharts::MonitorChartSet& MonitorChartModel::settled() const {
    if (!pendingTimes_.isEmpty()) {
        charts_->appendRows(pendingTimes_, pendingRows_);
        pendingTimes_.clear();
        pendingRows_.clear();
    }
    return *charts_;
}

void MonitorChartModel::clear() {
    startCharts();
}

void MonitorChartModel::startCharts() {
    const bool hadRows = rowCount() > 0;
    pendingTimes_.clear();
    pendingRows_.clear();
    pendingDropped_ = 0;
    charts_ = newCharts(columns_, windowSeconds_);
    if (hadRows) emit rowsChanged();
    emit chartsChanged();
}

QString MonitorChartModel::chartTitle(int column) const {
    const QtCharts::QChart* chart = settled().chart(column);
    return chart ? chart->title() : QString();
}

QString MonitorChartModel::valueAxisTitle(int column) const {
    const QtCharts::QAbstractAxis* axis = axisOf(settled().chart(column), Qt::Vertical);
    return axis ? axis->titleText() : QString();
}

QString MonitorChartModel::timeAxisTitle(int column) const {
    const QtCharts::QAbstractAxis* axis = axisOf(settled().chart(column), Qt::Horizontal);
    return axis ? axis->titleText() : QString();
}

QColor MonitorChartModel::seriesColor(int column) const {
    const QtCharts::QChart* chart = settled().chart(column);
    if (chart == nullptr || chart->series().isEmpty()) return QColor(Qt::transparent);
    return static_cast<const QtCharts::QLineSeries*>(chart->series().front())->color();
}

QList<int> MonitorChartModel::drawnColumns() const {
    QList<int> drawn;
    for (const QVariant& entry : shown_) {
        bool ok = false;
        const int column = entry.toInt(&ok);
        if (ok && column >= 0 && column < settled().chartCount() && !drawn.contains(column))
            drawn.push_back(column);
    }
    return drawn;
}
