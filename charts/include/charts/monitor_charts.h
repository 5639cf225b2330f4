#pragma once

// The monitor readings as charts: one small line chart per numeric value over time, with the
// value's name as title and its unit on the vertical axis. A graphical front end shows these
// charts live and appends a row at every monitor refresh; lidarutil loads a recording into the
// same charts and renders them to a PNG file.
//
// Drawing needs a QApplication (Qt Charts draws with the widget module); without a display, run
// it on the "offscreen" platform. Reading a recording (parseRecording) needs only Qt Core.

#include <QByteArray>
#include <QDateTime>
#include <QImage>
#include <QRectF>
#include <QSize>
#include <QString>
#include <QStringList>
#include <QVector>
#include <memory>

class QPainter;

namespace QtCharts {
class QChart;
class QLineSeries;
class QValueAxis;
}  // namespace QtCharts

namespace monitorcharts {

// A column label as a monitor record header writes it: the variable's name followed by its
// suffix, "Laser Temperature (°C)". The unit is the bracketed end, when there is one.
struct ColumnLabel {
    QString name;
    QString unit;
};
ColumnLabel splitColumnLabel(const QString& label);

// Reads numbers as a recording writes them: C-locale decimals, nothing else around them.
bool parseReading(const QString& text, double& value);
// The digits after the decimal point of a reading as written ("44.50": 2, "7": 0).
int decimalsOf(const QString& text);

// A monitor record file: its column labels (after "timestamp"), and per row its time and values.
// Rows whose field count or time does not fit (a line cut short by a crash) are left out.
struct Recording {
    QStringList labels;
    QVector<QDateTime> times;
    QVector<QStringList> rows;
};
bool parseRecording(const QByteArray& bytes, Recording& out, QString* error);
// The columns worth a chart: every value a number or empty (a reading that failed), at least one
// number.
QVector<int> numericColumns(const Recording& recording);

class MonitorChartSet {
  public:
    // One chart per label, in order.
    explicit MonitorChartSet(const QStringList& labels);
    ~MonitorChartSet();
    MonitorChartSet(const MonitorChartSet&) = delete;
    MonitorChartSet& operator=(const MonitorChartSet&) = delete;

    // Loads a monitor record file's numeric columns. Null with a reason when the file cannot be
    // read or is not a monitor recording.
    static std::unique_ptr<MonitorChartSet> fromRecordFile(const QString& path, QString* error);

    // Adds one reading; values[i] belongs to the i-th label. A value that is not a number (an
    // empty cell: that reading failed) leaves a gap in that chart's line: the readings on either
    // side of it are not joined. Each unbroken run of readings is a series of its own.
    void appendRow(const QDateTime& time, const QStringList& values);
    // The same for readings in time order, the axes fitted once after the last: readings that
    // were not drawn meanwhile are taken in one go.
    void appendRows(const QVector<QDateTime>& times, const QVector<QStringList>& rows);

    // A live chart keeps only the readings of the last `seconds` (counted back from the latest
    // row): older points are dropped and the axes refit to what is left, at once and at every
    // row after. 0, the default, keeps every reading, as a recording's chart does; a window
    // widened again shows no reading it dropped before.
    void setTimeWindow(double seconds);
    double timeWindow() const { return window_; }

    int chartCount() const { return charts_.size(); }
    int rowCount() const { return rows_; }
    // The points chart i holds now, over all its runs.
    int pointCount(int i) const;
    // The chart of column i, owned by this set; a front end shows it in a QChartView.
    QtCharts::QChart* chart(int i) const;
    // A title band (when `title` is not empty) above every chart in a grid of `perRow` columns,
    // each `cell` large.
    QImage render(const QString& title = QString(), QSize cell = defaultCell(),
                  int perRow = kDefaultPerRow) const;
    // Draws chart i into `target` of the painter, as render() draws each cell.
    void renderChart(int i, QPainter& painter, const QRectF& target) const;
    bool savePng(const QString& path, const QString& title, QString* error) const;

    static constexpr int kDefaultPerRow = 2;
    static constexpr int kTitleHeight = 40;
    static QSize defaultCell() { return QSize(480, 300); }
    // The size render() gives for `charts` charts.
    static QSize gridSize(int charts, bool titled, QSize cell = defaultCell(),
                          int perRow = kDefaultPerRow);

  private:
    // One reading's points, the axes left as they are.
    void addRowPoints(const QDateTime& time, const QStringList& values);
    struct Column {
        ColumnLabel label;
        QtCharts::QChart* chart = nullptr;
        // The run of readings the next value joins; null before the first value and after a gap.
        QtCharts::QLineSeries* run = nullptr;
        QtCharts::QValueAxis* timeAxis = nullptr;
        QtCharts::QValueAxis* valueAxis = nullptr;
        double low = 0;
        double high = 0;
        bool hasValue = false;
        int decimals = 0;  // the most digits after the point of any reading
    };
    void addPoint(Column& column, double seconds, double value);
    void dropPointsBefore(Column& column, double seconds);
    void fitValueAxis(Column& column);
    void fitTimeAxis(Column& column, double seconds);
    void fitToWindow(Column& column, double seconds);

    QVector<Column> charts_;
    QDateTime first_;
    int rows_ = 0;
    double latest_ = 0;  // the latest row's seconds from the first
    double window_ = 0;
};

}  // namespace monitorcharts
