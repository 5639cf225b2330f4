#pragma once

#include <functional>
#include <string>

// The one path of the manager's developer lines: the lines the design prints on standard output
// ("Init(): try to connect to lidar with TCP connection.", "[SUCCESS]: ...") and the diagnostics
// it sends to the debug stream. Everything in the core writes them through writeDeveloperLine;
// a front end that owns standard output (lidarutil's results, a --json document) points them
// elsewhere with setDeveloperLineSink instead of moving file descriptor 1.
namespace developer_log {

// Receives one line without its line end. Called on the thread that wrote the line, one call at
// a time.
using Sink = std::function<void(const std::string& line)>;

// An empty sink restores the default, standard output. Any thread may call it.
void setDeveloperLineSink(Sink sink);

// Writes one line; a line end at the end of `line` ends it and is not passed on.
void writeDeveloperLine(const std::string& line);

}  // namespace developer_log
