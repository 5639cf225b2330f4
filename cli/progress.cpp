#include "progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "output.h"

namespace cli {
namespace {

constexpr int kBarWidth = 24;

QString duration(qint64 seconds) {
    return QString("%1:%2").arg(seconds / 60).arg(seconds % 60, 2, 10, QChar('0'));
}

}  // namespace

ProgressRenderer::ProgressRenderer(QString label, QString unit)
    : label_(std::move(label)), unit_(std::move(unit)), terminal_(::isatty(STDERR_FILENO) == 1) {
    clock_.start();
}

QString ProgressRenderer::terminalLine(qint64 done, qint64 total) const {
    const double seconds = std::max<qint64>(clock_.elapsed(), 1) / 1000.0;
    if (total <= 0) return label_ + "  " + QString::number(seconds, 'f', 1) + " s";
    const double fraction = std::clamp(double(done) / double(total), 0.0, 1.0);
    const int filled = static_cast<int>(fraction * kBarWidth);
    const double rate = done / seconds;
    const QString left = rate > 0 ? duration(static_cast<qint64>((total - done) / rate)) : "?";
    return QString("%1 [%2%3] %4%  %5/%6 %7  %8  %9 left")
        .arg(label_)
        .arg(QString(filled, '#'))
        .arg(QString(kBarWidth - filled, '-'))
        .arg(static_cast<int>(fraction * 100), 3)
        .arg(done)
        .arg(total)
        .arg(unit_)
        .arg(rateText(rate, unit_))
        .arg(left);
}

void ProgressRenderer::update(qint64 done, qint64 total) {
    if (terminal_) {
        // \r and an erase to the end of the line: the new line may be shorter than the last.
        writeProgress("\r" + terminalLine(done, total) + "\x1b[K", true);
        drawn_ = true;
        return;
    }
    if (total <= 0) return;
    const int tenth = static_cast<int>(std::clamp(done * 10 / total, qint64{0}, qint64{10}));
    if (tenth == lastTenth_) return;
    lastTenth_ = tenth;
    writeLine(done, total);
}

void ProgressRenderer::writeLine(qint64 done, qint64 total) {
    const qint64 percent = std::clamp(done * 100 / total, qint64{0}, qint64{100});
    writeProgress(
        QString("%1: %2% (%3/%4 %5)\n").arg(label_).arg(percent).arg(done).arg(total).arg(unit_),
        false);
    lastDone_ = done;
}

void ProgressRenderer::finish(qint64 done, qint64 total) {
    update(done, total);
    // Where it ended, also between two tenths: a transfer cut short shows what it got.
    if (!terminal_ && total > 0 && done != lastDone_) writeLine(done, total);
    if (terminal_ && drawn_) writeProgress("\n", false);
    drawn_ = false;
}

}  // namespace cli
