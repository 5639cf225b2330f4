#pragma once

// The log's levels inside the manager; their texts ("INFO", ...) exist only where a line leaves
// it, in the sendLogMessage signal.
enum class LogLevel { kInfo, kWarning, kError, kBytes };
