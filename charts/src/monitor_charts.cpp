#include "charts/monitor_charts.h"

#include <QFile>
#include <QFont>
#include <QGraphicsScene>
#include <QPainter>
#include <QRegularExpression>
#include <QtCharts/QChart>
#include <QtCharts/QLineSeries>
#include <QtCharts/QValueAxis>
#include <algorithm>
#include <charconv>
#include <cmath>

using namespace QtCharts;

namespace monitorcharts {
namespace {

const char* const kTimestampColumn = "timestamp";
const char* const kRowTimeFormat = "yyyy-MM-dd HH:mm:ss.zzz";
// Beyond this a reading's digits are noise, and printf labels get unwieldy.
constexpr int kMaxDecimals = 6;

// The digits after the point that a tick step needs to be written exactly: 0.25 needs 2, 5 none.
int decimalsOfStep(double step) {
    for (int decimals = 0; decimals < kMaxDecimals; ++decimals) {
        const double scaled = step * std::pow(10.0, decimals);
        if (std::fabs(scaled - std::round(scaled)) < 1e-6 * scaled) return decimals;
    }
    return kMaxDecimals;
}

// The printf format of an axis's tick labels: at least `decimals` digits after the point, and as
// many as its tick step needs, so that no two ticks read the same.
QString tickLabelFormat(const QValueAxis& axis, int decimals) {
    const int ticks = axis.tickCount();
    const double step = ticks > 1 ? (axis.max() - axis.min()) / (ticks - 1) : 0;
    const int needed = step > 0 ? std::max(decimals, decimalsOfStep(step)) : decimals;
    return "%." + QString::number(std::min(needed, kMaxDecimals)) + "f";
}

}  // namespace

bool parseRecording(const QByteArray& bytes, Recording& out, QString* error) {
    out = Recording();
    QStringList lines = QString::fromUtf8(bytes).split('\n');
    for (QString& line : lines)
        if (line.endsWith('\r')) line.chop(1);
    const QStringList header = lines.isEmpty() ? QStringList() : lines.front().split(',');
    if (header.size() < 2 || header.front() != kTimestampColumn) {
        if (error) *error = "not a monitor recording (no \"timestamp\" header)";
        return false;
    }
    out.labels = header.mid(1);
    for (int i = 1; i < lines.size(); ++i) {
        const QStringList fields = lines[i].split(',');
        if (fields.size() != header.size()) continue;
        const QDateTime time = QDateTime::fromString(fields.front(), kRowTimeFormat);
        if (!time.isValid()) continue;
        out.times.push_back(time);
        out.rows.push_back(fields.mid(1));
    }
    return true;
}

QVector<int> numericColumns(const Recording& recording) {
    QVector<int> columns;
    for (int c = 0; c < recording.labels.size(); ++c) {
        bool anyNumber = false;
        bool allNumbersOrGaps = true;
        for (const QStringList& row : recording.rows) {
            double value = 0;
            if (parseReading(row[c], value))
                anyNumber = true;
            else if (!row[c].trimmed().isEmpty())
                allNumbersOrGaps = false;
        }
        if (anyNumber && allNumbersOrGaps) columns.push_back(c);
    }
    return columns;
}

ColumnLabel splitColumnLabel(const QString& label) {
    static const QRegularExpression kBracketedEnd(R"(^(.*?)\s*[\(\[]([^\(\)\[\]]*)[\)\]]\s*$)");
    const QRegularExpressionMatch match = kBracketedEnd.match(label);
    if (!match.hasMatch() || match.captured(1).trimmed().isEmpty())
        return {label.trimmed(), QString()};
    return {match.captured(1).trimmed(), match.captured(2).trimmed()};
}

bool parseReading(const QString& text, double& value) {
    const QByteArray bytes = text.trimmed().toUtf8();
    if (bytes.isEmpty()) return false;
    const char* begin = bytes.constData();
    const char* end = begin + bytes.size();
    const auto result = std::from_chars(begin, end, value);
    return result.ec == std::errc() && result.ptr == end && std::isfinite(value);
}

int decimalsOf(const QString& text) {
    const QString trimmed = text.trimmed();
    const int exponentAt = trimmed.indexOf(QRegularExpression("[eE]"));
    const QString mantissa = exponentAt < 0 ? trimmed : trimmed.left(exponentAt);
    const int point = mantissa.indexOf('.');
    const int fraction = point < 0 ? 0 : mantissa.size() - point - 1;
    const int exponent =
        exponentAt < 0 ? 0 : std::clamp(trimmed.mid(exponentAt + 1).toInt(), -1000, 1000);
    return std::clamp(fraction - exponent, 0, kMaxDecimals);
}

MonitorChartSet::MonitorChartSet(const QStringList& labels) {
    for (const QString& label : labels) {
        Column column;
        column.label = splitColumnLabel(label);
        column.chart = new QChart();
        column.chart->setTitle(column.label.name);
        column.chart->legend()->hide();
        column.chart->setMargins(QMargins(4, 4, 4, 4));
        column.timeAxis = new QValueAxis(column.chart);
        column.timeAxis->setLabelFormat("%.0f");
        column.timeAxis->setTitleText("s");
        column.valueAxis = new QValueAxis(column.chart);
        column.valueAxis->setTitleText(column.label.unit.isEmpty() ? "value" : column.label.unit);
        column.chart->addAxis(column.timeAxis, Qt::AlignBottom);
        column.chart->addAxis(column.valueAxis, Qt::AlignLeft);
        charts_.push_back(column);
    }
}

MonitorChartSet::~MonitorChartSet() {
    for (Column& column : charts_) delete column.chart;
}

std::unique_ptr<MonitorChartSet> MonitorChartSet::fromRecordFile(const QString& path,
                                                                 QString* error) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        if (error) *error = "cannot read " + path + ": " + file.errorString();
        return nullptr;
    }
    Recording recording;
    if (!parseRecording(file.readAll(), recording, error)) {
        if (error) *error = path + " is " + *error;
        return nullptr;
    }
    const QVector<int> numeric = numericColumns(recording);
    QStringList labels;
    for (int c : numeric) labels.push_back(recording.labels[c]);
    auto set = std::make_unique<MonitorChartSet>(labels);
    for (int r = 0; r < recording.rows.size(); ++r) {
        QStringList values;
        for (int c : numeric) values.push_back(recording.rows[r][c]);
        set->appendRow(recording.times[r], values);
    }
    return set;
}

// A new window takes effect at once, counted back from the latest row: a person who narrows it
// sees the older readings go without waiting for the next one.
void MonitorChartSet::setTimeWindow(double seconds) {
    window_ = std::max(seconds, 0.0);
    if (rows_ == 0) return;
    for (Column& column : charts_) fitToWindow(column, latest_);
}

int MonitorChartSet::pointCount(int i) const {
    if (i < 0 || i >= charts_.size()) return 0;
    int points = 0;
    for (QAbstractSeries* run : charts_[i].chart->series())
        points += static_cast<QLineSeries*>(run)->count();
    return points;
}

void MonitorChartSet::appendRow(const QDateTime& time, const QStringList& values) {
    appendRows({time}, {values});
}

void MonitorChartSet::appendRows(const QVector<QDateTime>& times,
                                 const QVector<QStringList>& rows) {
    const int count = std::min(times.size(), rows.size());
    if (count == 0) return;
    for (int r = 0; r < count; ++r) addRowPoints(times[r], rows[r]);
    for (Column& column : charts_) fitToWindow(column, latest_);
}

void MonitorChartSet::addRowPoints(const QDateTime& time, const QStringList& values) {
    if (!first_.isValid()) {
        first_ = time;
        for (Column& column : charts_)
            column.timeAxis->setTitleText("s from " + time.toString("HH:mm:ss"));
    }
    ++rows_;
    const double seconds = static_cast<double>(first_.msecsTo(time)) / 1000.0;
    latest_ = seconds;
    for (int i = 0; i < charts_.size(); ++i) {
        Column& column = charts_[i];
        double value = 0;
        if (i < values.size() && parseReading(values[i], value)) {
            column.decimals = std::max(column.decimals, decimalsOf(values[i]));
            addPoint(column, seconds, value);
        } else {
            column.run = nullptr;  // a failed reading: the line breaks here
        }
    }
}

// Drops what the window leaves behind `seconds` (the latest row) and refits both axes.
void MonitorChartSet::fitToWindow(Column& column, double seconds) {
    if (window_ > 0) dropPointsBefore(column, seconds - window_);
    if (column.hasValue) fitValueAxis(column);
    fitTimeAxis(column, seconds);
}

// Drops the readings older than `start`, and the runs left empty; the value range is taken
// again from the readings that are left, so an old spike no longer flattens the line.
void MonitorChartSet::dropPointsBefore(Column& column, double start) {
    column.hasValue = false;
    for (QAbstractSeries* abstractRun : column.chart->series()) {
        auto* run = static_cast<QLineSeries*>(abstractRun);
        int old = 0;
        while (old < run->count() && run->at(old).x() < start) ++old;
        if (old > 0) run->removePoints(0, old);
        if (run->count() == 0) {
            if (column.run == run) column.run = nullptr;
            column.chart->removeSeries(run);
            delete run;
            continue;
        }
        run->setPointsVisible(run->count() == 1);
        for (const QPointF& point : run->pointsVector()) {
            column.low = column.hasValue ? std::min(column.low, point.y()) : point.y();
            column.high = column.hasValue ? std::max(column.high, point.y()) : point.y();
            column.hasValue = true;
        }
    }
}

// A reading joins the current run of its chart, or starts a new one (drawn in the first run's
// colour) after a gap. A run of one reading shows its point, as it has no line yet.
void MonitorChartSet::addPoint(Column& column, double seconds, double value) {
    if (column.run == nullptr) {
        const QList<QAbstractSeries*> runs = column.chart->series();
        column.run = new QLineSeries(column.chart);
        column.chart->addSeries(column.run);
        if (!runs.isEmpty()) column.run->setColor(static_cast<QLineSeries*>(runs.front())->color());
        column.run->attachAxis(column.timeAxis);
        column.run->attachAxis(column.valueAxis);
    }
    column.run->append(seconds, value);
    column.run->setPointsVisible(column.run->count() == 1);
    column.low = column.hasValue ? std::min(column.low, value) : value;
    column.high = column.hasValue ? std::max(column.high, value) : value;
    column.hasValue = true;
}

// The vertical range follows the readings with a margin; a flat line gets a narrow band around
// it. Counters and other whole numbers get whole-number ticks. Tick labels carry as many
// decimals as the readings do, and more when the tick step needs them to stay distinct.
void MonitorChartSet::fitValueAxis(Column& column) {
    const double span = column.high - column.low;
    if (column.decimals == 0 && span <= 4) {
        const double low = std::floor(column.low) - 1;
        const double high = std::ceil(column.high) + 1;
        column.valueAxis->setRange(low, high);
        column.valueAxis->setTickCount(static_cast<int>(high - low) + 1);
    } else {
        const double margin = span > 0 ? span * 0.1 : std::max(std::fabs(column.high) * 0.02, 0.01);
        column.valueAxis->setRange(column.low - margin, column.high + margin);
        column.valueAxis->setTickCount(5);
        column.valueAxis->applyNiceNumbers();
    }
    column.valueAxis->setLabelFormat(tickLabelFormat(*column.valueAxis, column.decimals));
}

// From the first reading, or over the trailing window of a live chart, to the latest one.
void MonitorChartSet::fitTimeAxis(Column& column, double seconds) {
    const double start = window_ > 0 ? std::max(seconds - window_, 0.0) : 0.0;
    column.timeAxis->setRange(start, std::max(seconds, start + 1.0));
    column.timeAxis->applyNiceNumbers();
    column.timeAxis->setLabelFormat(tickLabelFormat(*column.timeAxis, 0));
}

QChart* MonitorChartSet::chart(int i) const {
    return i >= 0 && i < charts_.size() ? charts_[i].chart : nullptr;
}

QSize MonitorChartSet::gridSize(int charts, bool titled, QSize cell, int perRow) {
    if (charts <= 0 || perRow <= 0) return QSize(0, 0);
    const int columns = std::min(charts, perRow);
    const int rows = (charts + perRow - 1) / perRow;
    return QSize(columns * cell.width(), rows * cell.height() + (titled ? kTitleHeight : 0));
}

QImage MonitorChartSet::render(const QString& title, QSize cell, int perRow) const {
    const bool titled = !title.isEmpty();
    const QSize size = gridSize(charts_.size(), titled, cell, perRow);
    if (size.isEmpty()) return QImage();
    QImage image(size, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::white);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    const int top = titled ? kTitleHeight : 0;
    if (titled) {
        QFont font = painter.font();
        font.setPointSize(12);
        font.setBold(true);
        painter.setFont(font);
        painter.drawText(QRect(0, 0, size.width(), kTitleHeight), Qt::AlignCenter, title);
    }
    for (int i = 0; i < charts_.size(); ++i) {
        const QRectF target(
            QPointF((i % perRow) * cell.width(), top + (i / perRow) * cell.height()), QSizeF(cell));
        renderChart(i, painter, target);
    }
    return image;
}

void MonitorChartSet::renderChart(int i, QPainter& painter, const QRectF& target) const {
    QChart* chart = this->chart(i);
    if (chart == nullptr || target.isEmpty()) return;
    const QRectF source(QPointF(0, 0), target.size());
    // A scene owns what it holds: the chart is lent to it for the drawing only.
    QGraphicsScene scene;
    scene.addItem(chart);
    chart->setGeometry(source);
    scene.setSceneRect(source);
    scene.render(&painter, target, source);
    scene.removeItem(chart);
}

bool MonitorChartSet::savePng(const QString& path, const QString& title, QString* error) const {
    const QImage image = render(title);
    if (image.isNull()) {
        if (error) *error = "nothing to plot: the recording has no numeric values";
        return false;
    }
    if (!image.save(path, "PNG")) {
        if (error) *error = "cannot write " + path;
        return false;
    }
    return true;
}

}  // namespace monitorcharts
