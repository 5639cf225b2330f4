#include "monitor_chart_item.h"

#include <QDateTime>
#include <QPainter>
#include <QtCharts/QChart>
#include <QtCharts/QValueAxis>
#include <cmath>

namespace {

constexpr int kChartsPerRow = 2;

QtCharts::QAbstractAxis* axisOf(const QtCharts::QChart* chart, Qt::Orientation orientation) {
    const QList<QtCharts::QAbstractAxis*> axes =
        chart ? chart->axes(orientation) : QList<QtCharts::QAbstractAxis*>();
    return axes.isEmpty() ? nullptr : axes.front();
}

}  // namespace

MonitorChartItem::MonitorChartItem(QQuickItem* parent) : QQuickPaintedItem(parent) {
    setFillColor(Qt::white);
    startCharts();
}

MonitorChartItem::~MonitorChartItem() = default;

void MonitorChartItem::setColumns(const QStringList& columns) {
    if (columns == columns_) return;
    columns_ = columns;
    startCharts();
    emit columnsChanged();
}

void MonitorChartItem::setShownColumns(const QVariantList& shown) {
    if (shown == shown_) return;
    shown_ = shown;
    emit shownColumnsChanged();
    redraw();
}

void MonitorChartItem::setWindowSeconds(double seconds) {
    if (seconds == windowSeconds_) return;
    windowSeconds_ = seconds;
    charts_->setTimeWindow(seconds);
    emit windowSecondsChanged();
}

void MonitorChartItem::appendReading(const QStringList& values) {
    charts_->appendRow(QDateTime::currentDateTime(), values);
    emit rowsChanged();
    redraw();
}

void MonitorChartItem::clear() {
    startCharts();
}

// A chart set is made for one list of columns: other columns, or a fresh start, take a new one.
void MonitorChartItem::startCharts() {
    const bool hadRows = charts_ && charts_->rowCount() > 0;
    charts_ = std::make_unique<monitorcharts::MonitorChartSet>(columns_);
    charts_->setTimeWindow(windowSeconds_);
    if (hadRows) emit rowsChanged();
    redraw();
}

QString MonitorChartItem::chartTitle(int column) const {
    const QtCharts::QChart* chart = charts_->chart(column);
    return chart ? chart->title() : QString();
}

QString MonitorChartItem::valueAxisTitle(int column) const {
    const QtCharts::QAbstractAxis* axis = axisOf(charts_->chart(column), Qt::Vertical);
    return axis ? axis->titleText() : QString();
}

QString MonitorChartItem::timeAxisTitle(int column) const {
    const QtCharts::QAbstractAxis* axis = axisOf(charts_->chart(column), Qt::Horizontal);
    return axis ? axis->titleText() : QString();
}

// The shown indexes that name a chart, in the order given, each once.
QList<int> MonitorChartItem::drawnColumns() const {
    QList<int> drawn;
    for (const QVariant& entry : shown_) {
        bool ok = false;
        const int column = entry.toInt(&ok);
        if (ok && column >= 0 && column < charts_->chartCount() && !drawn.contains(column))
            drawn.push_back(column);
    }
    return drawn;
}

void MonitorChartItem::geometryChanged(const QRectF& newGeometry, const QRectF& oldGeometry) {
    QQuickPaintedItem::geometryChanged(newGeometry, oldGeometry);
    if (newGeometry.size() != oldGeometry.size()) redraw();
}

// The charts shown, in a grid of up to two a row that fills the item.
void MonitorChartItem::redraw() {
    const QList<int> drawn = drawnColumns();
    const QSize size = boundingRect().size().toSize();
    QImage frame;
    if (!drawn.isEmpty() && !size.isEmpty()) {
        frame = QImage(size, QImage::Format_ARGB32_Premultiplied);
        frame.fill(Qt::white);
        const int perRow = std::min(kChartsPerRow, static_cast<int>(drawn.size()));
        const int rows = (static_cast<int>(drawn.size()) + perRow - 1) / perRow;
        const QSizeF cell(static_cast<qreal>(size.width()) / perRow,
                          static_cast<qreal>(size.height()) / rows);
        QPainter painter(&frame);
        painter.setRenderHint(QPainter::Antialiasing);
        for (int i = 0; i < drawn.size(); ++i) {
            const QPointF corner((i % perRow) * cell.width(), (i / perRow) * cell.height());
            charts_->renderChart(drawn[i], painter, QRectF(corner, cell));
        }
    }
    {
        std::lock_guard<std::mutex> lock(frameMutex_);
        frame_ = frame;
    }
    update();
}

void MonitorChartItem::paint(QPainter* painter) {
    QImage frame;
    {
        std::lock_guard<std::mutex> lock(frameMutex_);
        frame = frame_;
    }
    if (!frame.isNull()) painter->drawImage(QPointF(0, 0), frame);
}
