// A hosts file for fleet mode: arbitrary bytes. A refusal always says why; what was accepted is
// at least one host, each with a port in range or the default, on lines in file order, and no
// host and port twice.

#include <QSet>
#include <cstdlib>

#include "fuzz_support.h"
#include "hosts_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray text(reinterpret_cast<const char*>(data), static_cast<int>(size));
    QVector<cli::FleetHost> hosts;
    QString error;
    if (!cli::readHostsFile(text, &hosts, &error)) {
        if (error.isEmpty() || !hosts.isEmpty()) std::abort();
        return 0;
    }
    if (hosts.isEmpty()) std::abort();
    QSet<QString> seen;
    int previousLine = 0;
    for (const cli::FleetHost& host : hosts) {
        if (host.host.isEmpty() || host.port < 0 || host.port > 65535) std::abort();
        if (host.line <= previousLine || host.line > text.count('\n') + 1) std::abort();
        previousLine = host.line;
        const QString key = host.host.toLower() + ':' + QString::number(host.port);
        if (seen.contains(key)) std::abort();
        seen.insert(key);
    }
    return 0;
}
