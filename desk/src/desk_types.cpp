#include "desk_types.h"

#include <QQuickStyle>
#include <QQuickWindow>
#include <QtQml>

#include "desk_session.h"
#include "device_queue.h"
#include "lidar_utilities_manager.h"
#include "monitor_chart_item.h"
#include "monitor_chart_model.h"

// The QML files are compiled into this library: their resource must be registered by name.
static void initDeskResources() {
    Q_INIT_RESOURCE(desk_qml);
}

void registerDeskTypes(LidarUtilitiesManager& manager, DeskSession& session) {
    initDeskResources();
    qmlRegisterSingletonInstance("Lidar", 1, 0, "Manager", &manager);
    qmlRegisterSingletonInstance("Lidar", 1, 0, "Desk", &session);
    qmlRegisterUncreatableType<DeviceQueue>("Lidar", 1, 0, "DeviceQueue",
                                            "the queue belongs to the session");
    qmlRegisterType<MonitorChartItem>("Lidar", 1, 0, "MonitorChart");
    // The charts' points outlive the Monitor view: the session owns them.
    auto* charts = new MonitorChartModel(&session);
    charts->follow(manager);
    qmlRegisterSingletonInstance("Lidar", 1, 0, "MonitorCharts", charts);
}

void useDeskLook() {
    QQuickStyle::setStyle("Fusion");
    QQuickWindow::setTextRenderType(QQuickWindow::NativeTextRendering);
}
