#include "output.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <QByteArray>
#include <algorithm>
#include <cstdio>
#include <mutex>
#include <string>

#include "lidar_utilities_manager.h"
#include "options.h"
#include "sdk/logger.h"

namespace cli {
namespace {

FILE* const resultStream = stdout;
bool verboseDiagnostics = false;
std::mutex streamMutex;         // Qt's message handler may run on the manager's worker threads
bool progressLineOpen = false;  // under streamMutex: a progress line waits on standard error

void writeLine(FILE* stream, const QString& line) {
    const QByteArray bytes = line.toUtf8();
    std::lock_guard<std::mutex> lock(streamMutex);
    if (stream == stderr && progressLineOpen) {
        // The message takes the progress line's place; the next update draws it again below.
        std::fputs("\r\x1b[K", stderr);
        progressLineOpen = false;
    }
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stream);
    std::fputc('\n', stream);
    std::fflush(stream);
}

void qtMessage(QtMsgType type, const QMessageLogContext&, const QString& message) {
    if (type == QtFatalMsg) {
        writeLine(stderr, "FATAL " + message);
        std::abort();
    }
    if (!verboseDiagnostics) return;
    static const char* const kNames[] = {"DEBUG", "WARNING", "CRITICAL", "FATAL", "INFO"};
    const int index = static_cast<int>(type);
    writeLine(stderr, QString(index >= 0 && index < 5 ? kNames[index] : "DEBUG") + ": " + message);
}

// The manager's developer lines ("Init(): try to connect ...") are diagnostics: on standard
// error with --verbose, dropped otherwise, never among the results.
void writeDeveloperLine(const std::string& line) {
    if (verboseDiagnostics) writeLine(stderr, QString::fromStdString(line));
}

}  // namespace

void writeProgress(const QString& text, bool lineOpen) {
    const QByteArray bytes = text.toUtf8();
    std::lock_guard<std::mutex> lock(streamMutex);
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stderr);
    std::fflush(stderr);
    progressLineOpen = lineOpen;
}

void routeOutput(bool verbose) {
    verboseDiagnostics = verbose;
    LidarUtilitiesManager::setDeveloperLineSink(writeDeveloperLine);
    qInstallMessageHandler(qtMessage);
    Logger::GetInstance().SetOutputFile(verbose ? "" : "-");
}

bool resultsAreTerminal() {
    return ::isatty(::fileno(resultStream)) == 1;
}

TerminalSize resultsTerminalSize() {
    struct winsize size = {};
    if (::ioctl(::fileno(resultStream), TIOCGWINSZ, &size) != 0) return {};
    return {size.ws_row, size.ws_col};
}

void printResult(const QString& line) {
    writeLine(resultStream, line);
}

void printJson(const QJsonDocument& document) {
    QString text = QString::fromUtf8(document.toJson(QJsonDocument::Indented));
    if (text.endsWith('\n')) text.chop(1);
    writeLine(resultStream, text);
}

void printDiagnostic(const QString& line) {
    writeLine(stderr, line);
}

int usageError(const QString& message) {
    printDiagnostic("lidarutil: " + message);
    return kExitUsage;
}

void flushOutput() {
    std::lock_guard<std::mutex> lock(streamMutex);
    std::fflush(resultStream);
    std::fflush(stderr);
}

QString formatTable(const QStringList& headers, const QVector<QStringList>& rows, int indent) {
    QVector<int> widths(headers.size(), 0);
    auto measure = [&widths](const QStringList& cells) {
        for (int c = 0; c < cells.size() && c < widths.size(); ++c)
            widths[c] = std::max(widths[c], static_cast<int>(cells[c].size()));
    };
    measure(headers);
    for (const QStringList& row : rows) measure(row);

    auto render = [&](const QStringList& cells) {
        QString line(indent, ' ');
        for (int c = 0; c < widths.size(); ++c) {
            const QString cell = c < cells.size() ? cells[c] : QString();
            const bool last = c == widths.size() - 1;
            line += last ? cell : cell.leftJustified(widths[c]) + "  ";
        }
        // Trailing blanks of empty last cells are noise for anyone diffing the output.
        while (line.endsWith(' ')) line.chop(1);
        return line;
    };
    QStringList lines{render(headers)};
    for (const QStringList& row : rows) lines << render(row);
    return lines.join('\n');
}

}  // namespace cli
