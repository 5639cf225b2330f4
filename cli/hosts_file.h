#pragma once

// The hosts file of fleet mode (--hosts FILE): one lidar a line, "HOST[:PORT]".
//   - '#' starts a comment that runs to the end of the line; blank lines and the spaces around
//     an entry are ignored; CRLF line ends and a leading UTF-8 byte order mark are accepted.
//   - HOST is an IPv4 address (four decimal bytes) or a host name (letters, digits, '-' and '.',
//     at most 253 characters, labels of 1 to 63 characters that neither start nor end with '-').
//   - An IPv6 address is written in brackets, with or without a port: "[fe80::1]",
//     "[fe80::1]:2368". Bare, its colons could not be told from the port's.
//   - PORT is 1 to 65535; without one the lidar's default port is used.
// The same host and port twice is refused (naming both lines), and so is a file without a host.

#include <QByteArray>
#include <QString>
#include <QVector>

namespace cli {

struct FleetHost {
    QString host;  // as written, without the brackets of an IPv6 address
    int port = 0;  // 0: the default
    int line = 0;  // 1-based line of the file, for messages
};

// Reads the whole file. On a refusal returns false, leaves *out untouched and sets *error
// ("hosts file line 7: 'a:b' has no valid port (1-65535)").
bool readHostsFile(const QByteArray& text, QVector<FleetHost>* out, QString* error);

}  // namespace cli
