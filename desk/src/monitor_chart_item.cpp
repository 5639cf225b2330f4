#include "monitor_chart_item.h"

#include <QPainter>
#include <algorithm>

namespace {

constexpr int kChartsPerRow = 2;

}  // namespace

MonitorChartItem::MonitorChartItem(QQuickItem* parent) : QQuickPaintedItem(parent) {
    setFillColor(Qt::white);
}

MonitorChartItem::~MonitorChartItem() = default;

void MonitorChartItem::setModel(MonitorChartModel* model) {
    if (model == model_) return;
    disconnect(modelConnection_);
    model_ = model;
    if (model_)
        modelConnection_ =
            connect(model_, &MonitorChartModel::chartsChanged, this, &MonitorChartItem::redraw);
    emit modelChanged();
    redraw();
}

void MonitorChartItem::geometryChanged(const QRectF& newGeometry, const QRectF& oldGeometry) {
    QQuickPaintedItem::geometryChanged(newGeometry, oldGeometry);
    if (newGeometry.size() != oldGeometry.size()) redraw();
}

// The charts shown, in a grid of up to two a row that fills the item.
void MonitorChartItem::redraw() {
    const QList<int> drawn = model_ ? model_->drawnColumns() : QList<int>();
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
            model_->charts().renderChart(drawn[i], painter, QRectF(corner, cell));
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
