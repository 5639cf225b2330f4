#pragma once

// One progress line for the long operations of lidarutil (firmware upload, log downloads,
// recordings). On a terminal it redraws in place: a bar, the percentage, the amount done of the
// total, the rate and the time left. When standard error is not a terminal it prints a plain
// line at every tenth of the way instead, so logs and scripts get a few readable lines.

#include <QElapsedTimer>
#include <QString>

namespace cli {

// A rate of `perSecond` units: whole units, or MiB/s with one decimal once a KiB rate passes
// 10 MiB/s (five digits of KiB are hard to read at a glance).
inline QString rateText(double perSecond, const QString& unit) {
    constexpr double kKiBPerMiB = 1024;
    if (unit == "KiB" && perSecond > 10 * kKiBPerMiB)
        return QString::number(perSecond / kKiBPerMiB, 'f', 1) + " MiB/s";
    return QString::number(perSecond, 'f', 0) + " " + unit + "/s";
}

class ProgressRenderer {
  public:
    // label starts every line; unit names what done and total count ("KiB").
    ProgressRenderer(QString label, QString unit);
    // done of total; a total of 0 or less is unknown (only the elapsed time is shown).
    void update(qint64 done, qint64 total);
    // Ends the line (with a last update of done of total when the total is known).
    void finish(qint64 done, qint64 total);

  private:
    QString terminalLine(qint64 done, qint64 total) const;
    void writeLine(qint64 done, qint64 total);

    QString label_;
    QString unit_;
    bool terminal_ = false;
    bool drawn_ = false;
    int lastTenth_ = -1;
    qint64 lastDone_ = -1;  // the last line written, when standard error is not a terminal
    QElapsedTimer clock_;
};

}  // namespace cli
