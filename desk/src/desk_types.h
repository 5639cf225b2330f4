#pragma once

// Makes the manager and the window's session reachable from QML: `import Lidar 1.0` gives the
// singletons `Manager` (the manager that getInstance returns) and `Desk`.

class LidarUtilitiesManager;
class DeskSession;

void registerDeskTypes(LidarUtilitiesManager& manager, DeskSession& session);
