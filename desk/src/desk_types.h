#pragma once

// Makes the manager and the window's session reachable from QML: `import Lidar 1.0` gives the
// singletons `Manager` (the manager that getInstance returns), `Desk` and `MonitorCharts` (the
// live monitor charts, kept for the session), and the `MonitorChart` item that paints them.

class LidarUtilitiesManager;
class DeskSession;

void registerDeskTypes(LidarUtilitiesManager& manager, DeskSession& session);
