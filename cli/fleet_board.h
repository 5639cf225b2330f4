#pragma once

// The progress of a fleet on standard error, on a terminal only: a line per lidar (host: waiting,
// running, or how it ended), redrawn in place as the lidars change. When the lidars do not fit on
// the screen, one line counts them instead (redrawing past the top of a screen is not possible).
// Not on a terminal it draws nothing: logs get the closing table alone.

#include <QString>
#include <QVector>

#include "fleet_outcome.h"

namespace cli {

class FleetBoard {
  public:
    explicit FleetBoard(int lidarCount);
    // Draws the lidars' states over the previous drawing.
    void draw(const QVector<LidarRun>& runs);
    // Takes the drawing off the screen, for a line to be printed where it was (a lidar's JSON
    // line when the results go to the same terminal, a warning, the closing table); the next
    // drawing comes below that line.
    void erase();

  private:
    QStringList linesFor(const QVector<LidarRun>& runs) const;

    bool terminal_ = false;
    bool oneLine_ = false;
    int columns_ = 0;     // the screen's width; 0 when unknown
    int drawnLines_ = 0;  // the lines of the last drawing, above the cursor
};

}  // namespace cli
