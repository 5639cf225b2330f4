#pragma once

// The live monitor charts in the window: paints the charts a MonitorChartModel holds and shows,
// in a grid of up to two a row that fills the item. The model outlives the item (it keeps taking
// readings while another view is shown); the item only draws it.

#include <QImage>
#include <QPointer>
#include <QQuickPaintedItem>
#include <mutex>

#include "monitor_chart_model.h"

class MonitorChartItem : public QQuickPaintedItem {
    Q_OBJECT
    Q_PROPERTY(MonitorChartModel* model READ model WRITE setModel NOTIFY modelChanged)

  public:
    explicit MonitorChartItem(QQuickItem* parent = nullptr);
    ~MonitorChartItem() override;

    MonitorChartModel* model() const { return model_; }
    void setModel(MonitorChartModel* model);

    // Draws the latest frame. Qt Quick may call it on its render thread, where the charts (graphics
    // items of the UI thread) must not be touched: they are drawn into the frame on the UI thread.
    void paint(QPainter* painter) override;

  protected:
    void geometryChanged(const QRectF& newGeometry, const QRectF& oldGeometry) override;

  signals:
    void modelChanged();

  private:
    void redraw();

    QPointer<MonitorChartModel> model_;
    QMetaObject::Connection modelConnection_;
    std::mutex frameMutex_;
    QImage frame_;  // under frameMutex_
};
