#include "charts/monitor_charts.h"

#include <QFile>
#include <QGraphicsScene>
#include <QPainter>
#include <QRegularExpression>
#include <QTextStream>
#include <QtCharts/QChart>
#include <QtCharts/QDateTimeAxis>
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

struct Recording {
    QStringList labels;
    QVector<QDateTime> times;
    QVector<QStringList> rows;
};

// The file as the recorder writes it: a header, then rows with as many fields. Rows that do not
// fit (a line cut short by a crash) are left out rather than shifting values between columns.
bool readRecording(const QString& path, Recording& out, QString* error) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        if (error) *error = "cannot read " + path + ": " + file.errorString();
        return false;
    }
    QTextStream stream(&file);
    stream.setCodec("UTF-8");
    const QStringList header = stream.readLine().split(',');
    if (header.size() < 2 || header.front() != kTimestampColumn) {
        if (error) *error = path + " is not a monitor recording (no \"timestamp\" header)";
        return false;
    }
    out.labels = header.mid(1);
    while (!stream.atEnd()) {
        const QStringList fields = stream.readLine().split(',');
        if (fields.size() != header.size()) continue;
        const QDateTime time = QDateTime::fromString(fields.front(), kRowTimeFormat);
        if (!time.isValid()) continue;
        out.times.push_back(time);
        out.rows.push_back(fields.mid(1));
    }
    return true;
}

bool columnIsNumeric(const Recording& recording, int column) {
    double value = 0;
    return std::all_of(recording.rows.begin(), recording.rows.end(),
                       [&](const QStringList& row) { return parseReading(row[column], value); });
}

}  // namespace

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

MonitorChartSet::MonitorChartSet(const QStringList& labels) {
    for (const QString& label : labels) {
        Column column;
        column.label = splitColumnLabel(label);
        column.chart = new QChart();
        column.chart->setTitle(column.label.name);
        column.chart->legend()->hide();
        column.chart->setMargins(QMargins(4, 4, 4, 4));
        column.series = new QLineSeries(column.chart);
        column.chart->addSeries(column.series);
        column.timeAxis = new QDateTimeAxis(column.chart);
        column.timeAxis->setFormat("HH:mm:ss");
        column.timeAxis->setTitleText("time");
        column.timeAxis->setTickCount(4);
        column.valueAxis = new QValueAxis(column.chart);
        column.valueAxis->setTitleText(column.label.unit.isEmpty() ? "value" : column.label.unit);
        column.chart->addAxis(column.timeAxis, Qt::AlignBottom);
        column.chart->addAxis(column.valueAxis, Qt::AlignLeft);
        column.series->attachAxis(column.timeAxis);
        column.series->attachAxis(column.valueAxis);
        charts_.push_back(column);
    }
}

MonitorChartSet::~MonitorChartSet() {
    for (Column& column : charts_) delete column.chart;
}

std::unique_ptr<MonitorChartSet> MonitorChartSet::fromRecordFile(const QString& path,
                                                                 QString* error) {
    Recording recording;
    if (!readRecording(path, recording, error)) return nullptr;
    QVector<int> numeric;
    QStringList labels;
    for (int c = 0; c < recording.labels.size(); ++c) {
        if (!recording.rows.isEmpty() && columnIsNumeric(recording, c)) {
            numeric.push_back(c);
            labels.push_back(recording.labels[c]);
        }
    }
    auto set = std::make_unique<MonitorChartSet>(labels);
    for (int r = 0; r < recording.rows.size(); ++r) {
        QStringList values;
        for (int c : numeric) values.push_back(recording.rows[r][c]);
        set->appendRow(recording.times[r], values);
    }
    return set;
}

void MonitorChartSet::appendRow(const QDateTime& time, const QStringList& values) {
    if (!first_.isValid()) first_ = time;
    ++rows_;
    for (int i = 0; i < charts_.size() && i < values.size(); ++i) {
        double value = 0;
        if (!parseReading(values[i], value)) continue;
        charts_[i].series->append(static_cast<qreal>(time.toMSecsSinceEpoch()), value);
        fitAxes(charts_[i], time, value);
    }
}

// The vertical range follows the readings with a margin; a flat line gets a band around it so
// that it is drawn in the middle rather than on an edge.
void MonitorChartSet::fitAxes(Column& column, const QDateTime& time, double value) {
    column.low = column.hasValue ? std::min(column.low, value) : value;
    column.high = column.hasValue ? std::max(column.high, value) : value;
    column.hasValue = true;
    const double span = column.high - column.low;
    const double margin = span > 0 ? span * 0.1 : std::max(std::fabs(value) * 0.01, 1.0);
    column.valueAxis->setRange(column.low - margin, column.high + margin);
    column.valueAxis->applyNiceNumbers();
    const QDateTime end = time > first_ ? time : first_.addSecs(1);
    column.timeAxis->setRange(first_, end);
}

QChart* MonitorChartSet::chart(int i) const {
    return i >= 0 && i < charts_.size() ? charts_[i].chart : nullptr;
}

QSize MonitorChartSet::gridSize(int charts, QSize cell, int perRow) {
    if (charts <= 0 || perRow <= 0) return QSize(0, 0);
    const int columns = std::min(charts, perRow);
    const int rows = (charts + perRow - 1) / perRow;
    return QSize(columns * cell.width(), rows * cell.height());
}

QImage MonitorChartSet::render(QSize cell, int perRow) const {
    const QSize size = gridSize(charts_.size(), cell, perRow);
    if (size.isEmpty()) return QImage();
    QImage image(size, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::white);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    for (int i = 0; i < charts_.size(); ++i) {
        QChart* chart = charts_[i].chart;
        const QRectF source(QPointF(0, 0), QSizeF(cell));
        const QRectF target(QPointF((i % perRow) * cell.width(), (i / perRow) * cell.height()),
                            QSizeF(cell));
        // A scene owns what it holds: the chart is lent to it for the drawing only.
        QGraphicsScene scene;
        scene.addItem(chart);
        chart->setGeometry(source);
        scene.setSceneRect(source);
        scene.render(&painter, target, source);
        scene.removeItem(chart);
    }
    return image;
}

bool MonitorChartSet::savePng(const QString& path, QString* error) const {
    const QImage image = render();
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
