#pragma once

// Makes the manager and the window's session reachable from QML: `import Lidar 1.0` gives the
// singletons `Manager` (the manager that getInstance returns), `Desk` and `MonitorCharts` (the
// live monitor charts, kept for the session), and the `MonitorChart` item that paints them.

class LidarUtilitiesManager;
class DeskSession;

void registerDeskTypes(LidarUtilitiesManager& manager, DeskSession& session);

// The window's look, set before its first item is made: the Fusion style, and text drawn with
// the platform's glyphs. The scene graph's default distance-field text adds glyphs to one texture
// that grows as new characters appear; with software OpenGL each growth stalled the UI thread
// for 100 ms or more (the frame-gap benchmark), when a read first showed new characters.
void useDeskLook();
