#include "fleet_board.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <QStringList>

#include "output.h"

namespace cli {
namespace {

// A margin below the drawing for the shell's prompt and the line being typed.
constexpr int kSpareRows = 2;

}  // namespace

FleetBoard::FleetBoard(int lidarCount) {
    terminal_ = ::isatty(STDERR_FILENO) == 1;
    struct winsize size = {};
    if (terminal_ && ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0) {
        columns_ = size.ws_col;
        oneLine_ = size.ws_row > 0 && lidarCount > size.ws_row - kSpareRows;
    }
}

QStringList FleetBoard::linesFor(const QVector<LidarRun>& runs) const {
    QStringList lines;
    if (oneLine_) {
        int running = 0;
        int waiting = 0;
        for (const LidarRun& run : runs) {
            running += run.state == LidarRun::State::kRunning;
            waiting += run.state == LidarRun::State::kWaiting;
        }
        lines << QString("%1 lidars: %2 done, %3 running, %4 waiting")
                     .arg(runs.size())
                     .arg(runs.size() - running - waiting)
                     .arg(running)
                     .arg(waiting);
    } else {
        for (const LidarRun& run : runs) {
            QString line = shownHost(run.host) + ": " + stateText(run);
            const QString detail = run.error.isEmpty() ? run.summary : run.error;
            if (!detail.isEmpty()) line += " -- " + detail;
            lines << line;
        }
    }
    // A line wider than the screen would wrap, and the next drawing would go up too few lines.
    if (columns_ > 1)
        for (QString& line : lines) line.truncate(columns_ - 1);
    return lines;
}

void FleetBoard::draw(const QVector<LidarRun>& runs) {
    if (!terminal_) return;
    const QStringList lines = linesFor(runs);
    QString text;
    if (drawnLines_ > 0) text += "\x1b[" + QString::number(drawnLines_) + "A";
    for (const QString& line : lines) text += "\r\x1b[K" + line + "\n";
    writeProgress(text, false);
    drawnLines_ = lines.size();
}

void FleetBoard::erase() {
    if (!terminal_ || drawnLines_ == 0) return;
    writeProgress("\x1b[" + QString::number(drawnLines_) + "A\r\x1b[J", false);
    drawnLines_ = 0;
}

}  // namespace cli
