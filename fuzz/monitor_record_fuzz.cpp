// A monitor record file as lidarutil monitor --plot and a front end read it back: arbitrary
// bytes. Every kept row has a time and one field per column; a column chosen for a chart holds
// numbers or empty cells only, and at least one number.

#include <QByteArray>
#include <cstdlib>

#include "charts/monitor_charts.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<int>(size));
    monitorcharts::Recording recording;
    QString error;
    if (!monitorcharts::parseRecording(bytes, recording, &error)) {
        if (error.isEmpty()) std::abort();
        return 0;
    }
    if (recording.times.size() != recording.rows.size()) std::abort();
    for (int r = 0; r < recording.rows.size(); ++r) {
        if (!recording.times[r].isValid()) std::abort();
        if (recording.rows[r].size() != recording.labels.size()) std::abort();
    }
    for (int column : monitorcharts::numericColumns(recording)) {
        bool anyNumber = false;
        for (const QStringList& row : recording.rows) {
            double value = 0;
            const bool number = monitorcharts::parseReading(row[column], value);
            if (!number && !row[column].trimmed().isEmpty()) std::abort();
            anyNumber = anyNumber || number;
        }
        if (!anyNumber) std::abort();
    }
    return 0;
}
