// The window's session charts: readings kept aside while nobody looks end as the charts that
// readings taken one by one make, and what is kept aside stays within the window.

#include <gtest/gtest.h>

#include <QApplication>
#include <QtCharts/QChart>
#include <QtCharts/QValueAxis>
#include <cstdlib>

#include "charts/monitor_charts.h"
#include "monitor_chart_model.h"

namespace {

const QStringList kColumns{"Input Voltage (V)", "Frame Drops"};

QStringList readingAt(int second) {
    return {second == 4 ? "95.5" : QString::number(12 + second % 3 * 0.5), QString::number(second)};
}

TEST(MonitorChartModel, ReadingsKeptAsideEndAsTheChartsReadingsOneByOneMake) {
    MonitorChartModel model;
    model.setColumns(kColumns);
    model.setWindowSeconds(10);
    monitorcharts::MonitorChartSet reference(kColumns);
    reference.setTimeWindow(10);
    const QDateTime start = QDateTime::fromString("2026-11-26T10:20:30", Qt::ISODate);
    for (int second = 0; second <= 60; ++second) {
        model.appendReading(start.addSecs(second), kColumns, readingAt(second));
        reference.appendRow(start.addSecs(second), readingAt(second));
        // The first reading stays (the time axis counts from it), then the window's worth.
        EXPECT_LE(model.readingsAside(), 12) << second;
    }
    // Another variant's reading is not charted.
    model.appendReading(start.addSecs(61), QStringList{"Other"}, QStringList{"1"});
    EXPECT_EQ(model.rowCount(), 61);

    EXPECT_EQ(model.timeAxisTitle(0), "s from 10:20:30");
    EXPECT_EQ(model.readingsAside(), 0) << "looked at: every reading is in the charts";
    for (int column : {0, 1}) {
        SCOPED_TRACE(column);
        EXPECT_EQ(model.pointCount(column), reference.pointCount(column));
        const auto* drawn = model.charts().chart(column);
        const auto* expected = reference.chart(column);
        for (Qt::Orientation axis : {Qt::Horizontal, Qt::Vertical}) {
            const auto* got = static_cast<QtCharts::QValueAxis*>(drawn->axes(axis).front());
            const auto* want = static_cast<QtCharts::QValueAxis*>(expected->axes(axis).front());
            EXPECT_EQ(got->min(), want->min());
            EXPECT_EQ(got->max(), want->max());
        }
    }
    EXPECT_EQ(model.pointCount(0), 11);  // 50 s .. 60 s: the spike at 4 s is gone
}

TEST(MonitorChartModel, OnlyChartsThatExistAreDrawnEachOnce) {
    MonitorChartModel model;
    model.setColumns(kColumns);
    EXPECT_EQ(model.drawnColumns(), (QList<int>{0, 1})) << "the first two are shown at first";
    model.setShownColumns({1, 0, 1, 2, -1, "x"});
    EXPECT_EQ(model.drawnColumns(), (QList<int>{1, 0}));
}

}  // namespace

// The charts draw through the widget module: a QApplication, on the offscreen platform.
int main(int argc, char** argv) {
    setenv("QT_QPA_PLATFORM", "offscreen", 0);
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
