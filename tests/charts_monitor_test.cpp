// The monitor charts as a front end and lidarutil monitor --plot meet them: their axes (titles,
// ranges, tick labels) and their lines (where a failed reading breaks them), read through the
// chart objects rather than from pixels.

#include <gtest/gtest.h>

#include <QApplication>
#include <QDateTime>
#include <QImage>
#include <QPainter>
#include <QSet>
#include <QtCharts/QChart>
#include <QtCharts/QLineSeries>
#include <QtCharts/QValueAxis>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "charts/monitor_charts.h"

using namespace QtCharts;
using monitorcharts::MonitorChartSet;

namespace {

QValueAxis* axisOf(const QChart* chart, Qt::Orientation orientation) {
    const QList<QAbstractAxis*> axes = chart->axes(orientation);
    return axes.size() == 1 ? qobject_cast<QValueAxis*>(axes.front()) : nullptr;
}

// The labels the axis draws: its printf format applied to each of its evenly spaced ticks.
QStringList tickLabels(const QValueAxis& axis) {
    QStringList labels;
    const QByteArray format = axis.labelFormat().toLatin1();
    for (int tick = 0; tick < axis.tickCount(); ++tick) {
        const double value = axis.min() + tick * (axis.max() - axis.min()) / (axis.tickCount() - 1);
        labels << QString::asprintf(format.constData(), value);
    }
    return labels;
}

int decimalsOfLabel(const QString& label) {
    const int point = label.indexOf('.');
    return point < 0 ? 0 : label.size() - point - 1;
}

// One chart fed one reading a second.
std::unique_ptr<MonitorChartSet> chartOf(const QStringList& readings) {
    auto set = std::make_unique<MonitorChartSet>(QStringList{"Laser Temperature (°C)"});
    const QDateTime start =
        QDateTime::fromString("2026-03-01 10:00:00.000", "yyyy-MM-dd HH:mm:ss.zzz");
    for (int i = 0; i < readings.size(); ++i) set->appendRow(start.addSecs(i), {readings[i]});
    return set;
}

TEST(MonitorCharts, TickLabelsAreDistinctAndAsPreciseAsTheReadings) {
    struct Case {
        const char* what;
        QStringList readings;
        int decimals;  // at least this many digits after the point
    };
    const Case cases[] = {
        {"a fall from a whole first reading", {"15.00", "14.90", "14.80", "14.70", "14.50"}, 2},
        {"a whole number, then a half", {"15", "14.5"}, 1},
        {"a flat line", {"44.75", "44.75", "44.75"}, 2},
        {"a wide swing", {"0.125", "1000.5"}, 3},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const auto set = chartOf(c.readings);
        const QValueAxis* values = axisOf(set->chart(0), Qt::Vertical);
        ASSERT_NE(values, nullptr);
        const QStringList labels = tickLabels(*values);
        EXPECT_GE(labels.size(), 3);
        EXPECT_EQ(QSet<QString>(labels.begin(), labels.end()).size(), labels.size())
            << labels.join(", ").toStdString();
        for (const QString& label : labels)
            EXPECT_GE(decimalsOfLabel(label), c.decimals) << label.toStdString();
        for (const QString& reading : c.readings) {
            EXPECT_LE(values->min(), reading.toDouble());
            EXPECT_GE(values->max(), reading.toDouble());
        }
    }

    // A counter gets a whole-number tick at each step.
    const auto counter = chartOf({"3", "4", "6"});
    EXPECT_EQ(tickLabels(*axisOf(counter->chart(0), Qt::Vertical)),
              QStringList({"2", "3", "4", "5", "6", "7"}));
    // The time axis: seconds from the first row, distinct also within the first second.
    auto quick = std::make_unique<MonitorChartSet>(QStringList{"Frame Drops"});
    EXPECT_EQ(axisOf(quick->chart(0), Qt::Horizontal)->titleText(), "s");  // before any reading
    const QDateTime start = QDateTime::currentDateTime();
    for (int ms : {0, 400, 800}) quick->appendRow(start.addMSecs(ms), {"1"});
    const QValueAxis* time = axisOf(quick->chart(0), Qt::Horizontal);
    const QStringList seconds = tickLabels(*time);
    EXPECT_EQ(QSet<QString>(seconds.begin(), seconds.end()).size(), seconds.size())
        << seconds.join(", ").toStdString();
    EXPECT_EQ(time->titleText(), "s from " + start.toString("HH:mm:ss"));
    EXPECT_EQ(axisOf(quick->chart(0), Qt::Vertical)->titleText(), "value");
    EXPECT_EQ(axisOf(counter->chart(0), Qt::Vertical)->titleText(), "°C");
    EXPECT_EQ(counter->chart(0)->title(), "Laser Temperature");
    // One value a chart, named by its title: a legend would list each run of its line.
    EXPECT_FALSE(counter->chart(0)->legend()->isVisible());
}

// The points of each line of a chart, in order: one line per unbroken run of readings.
QVector<QVector<QPointF>> runsOf(const QChart* chart) {
    QVector<QVector<QPointF>> runs;
    for (QAbstractSeries* series : chart->series())
        runs.push_back(static_cast<QLineSeries*>(series)->pointsVector());
    return runs;
}

TEST(MonitorCharts, AFailedReadingIsAGapNotAPoint) {
    const auto set = chartOf({"", "101.5", "", "103.5", "104.5", "", "", "107.5", "108.5"});
    const QVector<QVector<QPointF>> runs = runsOf(set->chart(0));
    EXPECT_EQ(runs, (QVector<QVector<QPointF>>{
                        {{1, 101.5}}, {{3, 103.5}, {4, 104.5}}, {{7, 107.5}, {8, 108.5}}}));
    // One line in one colour; a run of a single reading shows its point.
    const QList<QAbstractSeries*> series = set->chart(0)->series();
    for (QAbstractSeries* run : series) {
        EXPECT_EQ(static_cast<QLineSeries*>(run)->color(),
                  static_cast<QLineSeries*>(series.front())->color());
        EXPECT_EQ(static_cast<QLineSeries*>(run)->pointsVisible(),
                  static_cast<QLineSeries*>(run)->count() == 1);
    }
    // The axes are fitted to the readings only: no failed reading counted as zero.
    EXPECT_GT(axisOf(set->chart(0), Qt::Vertical)->min(), 90.0);

    // A row cut short counts as failed for the columns it lacks.
    MonitorChartSet two(QStringList{"A", "B"});
    const QDateTime start = QDateTime::currentDateTime();
    two.appendRow(start, {"1", "2"});
    two.appendRow(start.addSecs(1), {"1"});
    two.appendRow(start.addSecs(2), {"1", "2"});
    EXPECT_EQ(runsOf(two.chart(0)).size(), 1);
    EXPECT_EQ(runsOf(two.chart(1)).size(), 2);
}

TEST(MonitorCharts, ARecordingGivesAChartPerNumericColumnWithItsGaps) {
    const std::string path = ::testing::TempDir() + "charts_recording.csv";
    FILE* file = std::fopen(path.c_str(), "w");
    ASSERT_NE(file, nullptr);
    std::fputs(
        "timestamp,Input Voltage (V),Mode,Frame Drops,Fan (rpm),Spare\n"
        "2026-03-01 10:00:00.000,12.10,run,0,1200,\n"
        "2026-03-01 10:00:01.000,,run,,stalled,\n"
        "2026-03-01 10:00:02.000,12.30,idle,2,1180,\n"
        "2026-03-01 10:00:03.0\n",
        file);
    std::fclose(file);
    QString error;
    const auto set = MonitorChartSet::fromRecordFile(QString::fromStdString(path), &error);
    ASSERT_NE(set, nullptr) << error.toStdString();
    // Left out: the text column, the numbers mixed with a text, the column without a number.
    ASSERT_EQ(set->chartCount(), 2);
    EXPECT_EQ(set->rowCount(), 3);  // the row cut short is skipped
    EXPECT_EQ(set->chart(0)->title(), "Input Voltage");
    EXPECT_EQ(runsOf(set->chart(0)), (QVector<QVector<QPointF>>{{{0, 12.1}}, {{2, 12.3}}}));
    EXPECT_EQ(set->chart(1)->title(), "Frame Drops");
    EXPECT_EQ(runsOf(set->chart(1)).size(), 2);
    QString saveError;
    EXPECT_FALSE(set->savePng("/nonexistent-folder/chart.png", "title", &saveError));
    EXPECT_EQ(saveError, "cannot write /nonexistent-folder/chart.png");
    const MonitorChartSet none{QStringList()};
    EXPECT_FALSE(none.savePng(QString::fromStdString(path + ".png"), "title", &saveError));
    EXPECT_EQ(saveError, "nothing to plot: the recording has no numeric values");

    // Not a recording; no file at all.
    file = std::fopen(path.c_str(), "w");
    std::fputs("time,value\n2026-03-01 10:00:00.000,1\n", file);
    std::fclose(file);
    EXPECT_EQ(MonitorChartSet::fromRecordFile(QString::fromStdString(path), &error), nullptr);
    EXPECT_TRUE(error.endsWith(" is not a monitor recording (no \"timestamp\" header)"))
        << error.toStdString();
    std::remove(path.c_str());
    EXPECT_EQ(MonitorChartSet::fromRecordFile(QString::fromStdString(path), &error), nullptr);
    EXPECT_TRUE(error.startsWith("cannot read ")) << error.toStdString();
}

// A live chart keeps the trailing window only: the readings before it are dropped, with the runs
// they leave empty, and both axes refit to what is left.
TEST(MonitorChartsLive, ATimeWindowKeepsTheLatestReadingsAndRefitsTheAxes) {
    MonitorChartSet set(QStringList{"Input Voltage (V)"});
    set.setTimeWindow(10);
    EXPECT_EQ(set.timeWindow(), 10);
    const QDateTime start = QDateTime::currentDateTime();
    // A spike at 0 s, a gap at 2 s, then a steady 12 V.
    set.appendRow(start, {"90.0"});
    set.appendRow(start.addSecs(1), {"12.0"});
    set.appendRow(start.addSecs(2), {""});
    for (int s = 3; s <= 11; ++s) set.appendRow(start.addSecs(s), {"12.5"});
    EXPECT_EQ(set.rowCount(), 12);
    // 11 s back from 11 s reaches 1 s: the spike is gone, the run after it is kept.
    EXPECT_EQ(runsOf(set.chart(0)).size(), 2);
    EXPECT_EQ(set.pointCount(0), 10);
    EXPECT_EQ(runsOf(set.chart(0)).front(), (QVector<QPointF>{{1, 12.0}}));
    const QValueAxis* value = axisOf(set.chart(0), Qt::Vertical);
    EXPECT_LT(value->max(), 20.0) << "the dropped spike still stretches the value axis";
    EXPECT_GE(value->max(), 12.5);
    EXPECT_LE(value->min(), 12.0);
    const QValueAxis* time = axisOf(set.chart(0), Qt::Horizontal);
    EXPECT_GE(time->max(), 11.0);
    EXPECT_LE(time->min(), 1.0);

    // Two more seconds: the lone reading's run goes as a whole, the line keeps its colour.
    const QColor colour = static_cast<QLineSeries*>(set.chart(0)->series().front())->color();
    set.appendRow(start.addSecs(12), {"12.5"});
    set.appendRow(start.addSecs(13), {"12.5"});
    EXPECT_EQ(runsOf(set.chart(0)).size(), 1);
    EXPECT_EQ(set.pointCount(0), 11);  // 3 s .. 13 s
    EXPECT_EQ(static_cast<QLineSeries*>(set.chart(0)->series().front())->color(), colour);
    EXPECT_LE(axisOf(set.chart(0), Qt::Horizontal)->min(), 3.0);
    EXPECT_GE(axisOf(set.chart(0), Qt::Horizontal)->max(), 13.0);

    // Long after: the time axis shows the window, not everything since the first reading.
    for (int s = 14; s <= 100; ++s) set.appendRow(start.addSecs(s), {"12.5"});
    EXPECT_EQ(set.pointCount(0), 11);
    EXPECT_GT(axisOf(set.chart(0), Qt::Horizontal)->min(), 80.0);
    EXPECT_LE(axisOf(set.chart(0), Qt::Horizontal)->min(), 90.0);
    EXPECT_GE(axisOf(set.chart(0), Qt::Horizontal)->max(), 100.0);
}

TEST(MonitorChartsLive, WithoutAWindowEveryReadingStaysAndTheTimeAxisFollowsGaps) {
    MonitorChartSet set(QStringList{"A", "B"});
    EXPECT_EQ(set.timeWindow(), 0);
    set.setTimeWindow(-5);  // no window rather than a window that drops everything
    EXPECT_EQ(set.timeWindow(), 0);
    const QDateTime start = QDateTime::currentDateTime();
    for (int s = 0; s < 30; ++s) set.appendRow(start.addSecs(s), {"1", s < 20 ? "2" : ""});
    EXPECT_EQ(set.pointCount(0), 30);
    EXPECT_EQ(set.pointCount(1), 20);
    EXPECT_EQ(set.pointCount(2), 0);
    EXPECT_EQ(axisOf(set.chart(0), Qt::Horizontal)->min(), 0.0);
    // The chart whose readings failed still shows the time up to the latest row.
    EXPECT_GE(axisOf(set.chart(1), Qt::Horizontal)->max(), 29.0);
    // A window that leaves a chart no reading empties it; the next reading starts it again.
    MonitorChartSet live(QStringList{"A"});
    live.setTimeWindow(5);
    live.appendRow(start, {"3"});
    live.appendRow(start.addSecs(20), {""});
    EXPECT_EQ(live.pointCount(0), 0);
    EXPECT_TRUE(live.chart(0)->series().isEmpty());
    live.appendRow(start.addSecs(21), {"4"});
    EXPECT_EQ(runsOf(live.chart(0)), (QVector<QVector<QPointF>>{{{21, 4}}}));
    EXPECT_GE(axisOf(live.chart(0), Qt::Vertical)->max(), 4.0);
    EXPECT_LE(axisOf(live.chart(0), Qt::Vertical)->min(), 4.0);
}

// Choosing a narrower window takes effect at once: the readings behind it go and the axes refit
// without waiting for the next reading; a wider window again brings nothing back.
TEST(MonitorChartsLive, ANarrowerWindowDropsTheOlderReadingsAtOnce) {
    MonitorChartSet set(QStringList{"Input Voltage (V)", "Frame Drops"});
    const QDateTime start = QDateTime::currentDateTime();
    for (int s = 0; s <= 100; ++s) set.appendRow(start.addSecs(s), {s == 5 ? "90.0" : "12.5", "3"});
    ASSERT_EQ(set.pointCount(0), 101);
    ASSERT_GE(axisOf(set.chart(0), Qt::Vertical)->max(), 90.0);

    set.setTimeWindow(10);
    EXPECT_EQ(set.rowCount(), 101);  // the rows seen, not the points kept
    for (int chart : {0, 1}) {
        SCOPED_TRACE(chart);
        EXPECT_EQ(set.pointCount(chart), 11);  // 90 s .. 100 s
        ASSERT_EQ(runsOf(set.chart(chart)).size(), 1);
        EXPECT_EQ(runsOf(set.chart(chart)).front().front().x(), 90.0);
        const QValueAxis* time = axisOf(set.chart(chart), Qt::Horizontal);
        EXPECT_GE(time->min(), 80.0);
        EXPECT_LE(time->min(), 90.0);
        EXPECT_GE(time->max(), 100.0);
    }
    const QValueAxis* value = axisOf(set.chart(0), Qt::Vertical);
    EXPECT_LT(value->max(), 20.0) << "the dropped spike still stretches the value axis";
    EXPECT_LE(value->min(), 12.5);

    set.setTimeWindow(0);
    EXPECT_EQ(set.pointCount(0), 11);
    EXPECT_EQ(axisOf(set.chart(0), Qt::Horizontal)->min(), 0.0);
    EXPECT_GE(axisOf(set.chart(0), Qt::Horizontal)->max(), 100.0);

    // A window chosen before any reading holds for the readings that come.
    MonitorChartSet fresh(QStringList{"A"});
    fresh.setTimeWindow(5);
    EXPECT_EQ(fresh.pointCount(0), 0);
    for (int s = 0; s <= 20; ++s) fresh.appendRow(start.addSecs(s), {"1"});
    EXPECT_EQ(fresh.pointCount(0), 6);
}

// One chart drawn into a cell is the cell render() draws for it.
// Readings taken in one go (the window's charts while nobody looks at them) end as the same
// charts as readings taken one by one: points, gaps, dropped readings and axes.
TEST(MonitorChartsLive, ReadingsTakenInOneGoMatchTheSameReadingsOneByOne) {
    const QStringList labels{"Input Voltage (V)", "Frame Drops"};
    const QDateTime start = QDateTime::currentDateTime();
    QVector<QDateTime> times;
    QVector<QStringList> rows;
    for (int s = 0; s <= 40; ++s) {
        times << start.addSecs(s);
        rows << QStringList{s == 3    ? "95.5"
                            : s == 30 ? ""
                                      : QString::number(12 + s % 4 * 0.25),
                            QString::number(s / 7)};
    }
    MonitorChartSet oneByOne(labels), inOneGo(labels);
    for (MonitorChartSet* set : {&oneByOne, &inOneGo}) set->setTimeWindow(20);
    for (int r = 0; r < times.size(); ++r) oneByOne.appendRow(times[r], rows[r]);
    inOneGo.appendRows(times.mid(0, 10), rows.mid(0, 10));
    inOneGo.appendRows(times.mid(10), rows.mid(10));
    EXPECT_EQ(inOneGo.rowCount(), oneByOne.rowCount());
    for (int chart : {0, 1}) {
        SCOPED_TRACE(chart);
        EXPECT_EQ(inOneGo.pointCount(chart), oneByOne.pointCount(chart));
        EXPECT_EQ(runsOf(inOneGo.chart(chart)), runsOf(oneByOne.chart(chart)));
        for (Qt::Orientation axis : {Qt::Horizontal, Qt::Vertical}) {
            EXPECT_EQ(axisOf(inOneGo.chart(chart), axis)->min(),
                      axisOf(oneByOne.chart(chart), axis)->min());
            EXPECT_EQ(axisOf(inOneGo.chart(chart), axis)->max(),
                      axisOf(oneByOne.chart(chart), axis)->max());
        }
    }
    EXPECT_LT(axisOf(inOneGo.chart(0), Qt::Vertical)->max(), 20.0) << "the old spike is gone";
    EXPECT_EQ(runsOf(inOneGo.chart(0)).size(), 2) << "the failed reading breaks the line";
}

TEST(MonitorChartsLive, ACellDrawnAloneMatchesTheGrid) {
    MonitorChartSet set(QStringList{"A (V)", "B (A)"});
    const QDateTime start = QDateTime::currentDateTime();
    for (int s = 0; s < 5; ++s) set.appendRow(start.addSecs(s), {QString::number(s), "1"});
    const QSize cell(240, 160);
    const QImage grid = set.render(QString(), cell, 2);
    QImage alone(cell, QImage::Format_ARGB32_Premultiplied);
    alone.fill(Qt::white);
    {
        QPainter painter(&alone);
        painter.setRenderHint(QPainter::Antialiasing);
        set.renderChart(1, painter, QRectF(QPointF(0, 0), QSizeF(cell)));
        set.renderChart(7, painter, QRectF(QPointF(0, 0), QSizeF(cell)));  // no such chart
    }
    EXPECT_EQ(alone, grid.copy(QRect(QPoint(cell.width(), 0), cell)));
    EXPECT_EQ(set.chart(7), nullptr);
    EXPECT_EQ(set.chart(-1), nullptr);
    EXPECT_EQ(set.pointCount(7), 0);
    EXPECT_EQ(set.pointCount(-1), 0);
    EXPECT_EQ(set.pointCount(0), 5);
    EXPECT_NE(alone, grid.copy(QRect(QPoint(0, 0), cell)));
}

}  // namespace

// The charts draw through the widget module: a QApplication, on the offscreen platform.
int main(int argc, char** argv) {
    setenv("QT_QPA_PLATFORM", "offscreen", 0);
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
