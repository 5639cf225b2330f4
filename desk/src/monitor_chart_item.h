#pragma once

// The live monitor charts in the window: the charts of a monitorcharts::MonitorChartSet, the very
// ones lidarutil monitor --plot draws, painted into a Qt Quick item. QML gives it the record's
// column labels and appends one reading per monitor refresh; it keeps the last minutes only.

#include <QImage>
#include <QQuickPaintedItem>
#include <QStringList>
#include <QVariantList>
#include <memory>
#include <mutex>

#include "charts/monitor_charts.h"

class MonitorChartItem : public QQuickPaintedItem {
    Q_OBJECT
    // The labels of the values, as a record header writes them ("Input Voltage (V)"). New labels
    // start empty charts.
    Q_PROPERTY(QStringList columns READ columns WRITE setColumns NOTIFY columnsChanged)
    // The indexes of the columns drawn, in a grid of two charts a row.
    Q_PROPERTY(QVariantList shownColumns READ shownColumns WRITE setShownColumns NOTIFY
                   shownColumnsChanged)
    // How far back the charts reach, in seconds.
    Q_PROPERTY(
        double windowSeconds READ windowSeconds WRITE setWindowSeconds NOTIFY windowSecondsChanged)
    Q_PROPERTY(int rowCount READ rowCount NOTIFY rowsChanged)

  public:
    explicit MonitorChartItem(QQuickItem* parent = nullptr);
    ~MonitorChartItem() override;

    QStringList columns() const { return columns_; }
    void setColumns(const QStringList& columns);
    QVariantList shownColumns() const { return shown_; }
    void setShownColumns(const QVariantList& shown);
    double windowSeconds() const { return windowSeconds_; }
    void setWindowSeconds(double seconds);
    int rowCount() const { return charts_->rowCount(); }

    // One reading taken now: values[i] belongs to columns[i]; an empty value is a failed reading.
    Q_INVOKABLE void appendReading(const QStringList& values);
    // Empties the charts, keeping the columns.
    Q_INVOKABLE void clear();
    // What chart `column` holds and shows, for the views and their tests.
    Q_INVOKABLE int pointCount(int column) const { return charts_->pointCount(column); }
    Q_INVOKABLE QString chartTitle(int column) const;
    Q_INVOKABLE QString valueAxisTitle(int column) const;
    Q_INVOKABLE QString timeAxisTitle(int column) const;

    // Draws the latest frame. Qt Quick may call it on its render thread, where the charts (graphics
    // items of the UI thread) must not be touched: they are drawn into the frame on the UI thread.
    void paint(QPainter* painter) override;

  protected:
    void geometryChanged(const QRectF& newGeometry, const QRectF& oldGeometry) override;

  signals:
    void columnsChanged();
    void shownColumnsChanged();
    void windowSecondsChanged();
    void rowsChanged();

  private:
    void startCharts();
    QList<int> drawnColumns() const;
    void redraw();

    QStringList columns_;
    QVariantList shown_;
    double windowSeconds_ = 300;
    std::unique_ptr<monitorcharts::MonitorChartSet> charts_;
    std::mutex frameMutex_;
    QImage frame_;  // under frameMutex_
};
