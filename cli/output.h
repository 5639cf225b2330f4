#pragma once

// Where lidarutil writes: its results on standard output, everything else on standard error,
// plus the plain-text tables and JSON documents it prints.

#include <QJsonDocument>
#include <QString>
#include <QStringList>
#include <QVector>

namespace cli {

// Call first in main, before the manager is made. Results go to standard output and nothing
// else does: the manager's developer lines ("Init(): try to connect ...") go through the sink
// lidarutil gives the manager, to standard error with --verbose (as diagnostics) and nowhere
// otherwise; mixed into our results they would break --json and every script reading name=value
// lines. Qt's debug stream and the device layer's Logger follow the same rule.
void routeOutput(bool verbose);

// One line of results (a newline is added).
void printResult(const QString& line);
// True when the results go to a terminal (a table may then be redrawn in place).
bool resultsAreTerminal();
// The size of that terminal in character cells; zeros when it is not one or does not say.
struct TerminalSize {
    int rows = 0;
    int columns = 0;
};
TerminalSize resultsTerminalSize();
// A JSON document, indented, on the results stream.
void printJson(const QJsonDocument& document);
// One line on standard error. A progress line left open on a terminal is cleared first.
void printDiagnostic(const QString& line);
// Progress text on standard error as it is (no line end added); lineOpen: the text leaves a line
// that the next progress update redraws in place.
void writeProgress(const QString& text, bool lineOpen);
// "lidarutil: message" on standard error; returns the exit status of a usage error.
int usageError(const QString& message);
// Flushes both streams.
void flushOutput();

// A text table: one header row, then the rows; columns are padded to the widest cell, the last
// column is not padded; every line starts with `indent` blanks.
QString formatTable(const QStringList& headers, const QVector<QStringList>& rows, int indent = 0);

}  // namespace cli
