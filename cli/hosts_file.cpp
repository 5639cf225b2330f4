#include "hosts_file.h"

#include <QHash>
#include <QStringList>

namespace cli {

namespace {

constexpr int kLongestHostName = 253;
constexpr int kLongestLabel = 63;
constexpr int kLongestShownEntry = 80;

bool isDigit(QChar c) {
    return c >= '0' && c <= '9';
}

bool isHexDigit(QChar c) {
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool isDigitsOnly(const QString& text) {
    for (const QChar c : text)
        if (!isDigit(c)) return false;
    return !text.isEmpty();
}

// Four decimal bytes, 1 to 3 digits each.
bool isIPv4Address(const QString& text) {
    const QStringList parts = text.split('.');
    if (parts.size() != 4) return false;
    for (const QString& part : parts)
        if (part.size() > 3 || !isDigitsOnly(part) || part.toInt() > 255) return false;
    return true;
}

// Groups of one to four hexadecimal digits; the last may be an IPv4 address (two groups' worth).
// Returns the number of groups, or -1.
int ipv6GroupCount(const QString& text) {
    if (text.isEmpty()) return 0;
    const QStringList groups = text.split(':');
    int count = 0;
    for (int i = 0; i < groups.size(); ++i) {
        const QString& group = groups[i];
        if (i + 1 == groups.size() && group.contains('.')) {
            if (!isIPv4Address(group)) return -1;
            count += 2;
            continue;
        }
        if (group.isEmpty() || group.size() > 4) return -1;
        for (const QChar c : group)
            if (!isHexDigit(c)) return -1;
        ++count;
    }
    return count;
}

// Eight groups, or fewer with one "::" standing for the zeros left out.
bool isIPv6Address(const QString& text) {
    const int gap = text.indexOf(QLatin1String("::"));
    if (gap < 0) return ipv6GroupCount(text) == 8;
    if (text.indexOf(QLatin1String("::"), gap + 1) >= 0) return false;
    const QString before = text.left(gap);
    const QString after = text.mid(gap + 2);
    // An IPv4 tail is allowed only at the very end, not before the gap.
    if (before.contains('.')) return false;
    const int countBefore = ipv6GroupCount(before);
    const int countAfter = ipv6GroupCount(after);
    return countBefore >= 0 && countAfter >= 0 && countBefore + countAfter <= 7;
}

bool isHostNameLabel(const QString& label) {
    if (label.isEmpty() || label.size() > kLongestLabel) return false;
    if (label.startsWith('-') || label.endsWith('-')) return false;
    for (const QChar c : label)
        if (!isDigit(c) && !(c >= 'a' && c <= 'z') && !(c >= 'A' && c <= 'Z') && c != '-')
            return false;
    return true;
}

// What is all digits and dots is meant as an IPv4 address and must be one ("10.0.0" is not a
// name); anything else is a host name.
bool isHost(const QString& host) {
    bool digitsAndDots = true;
    for (const QChar c : host)
        if (!isDigit(c) && c != '.') digitsAndDots = false;
    if (digitsAndDots) return isIPv4Address(host);
    if (host.size() > kLongestHostName) return false;
    for (const QString& label : host.split('.'))
        if (!isHostNameLabel(label)) return false;
    return true;
}

// 1 to 65535 in decimal; 0 when the text is not one.
int portNumber(const QString& text) {
    if (text.size() > 5 || !isDigitsOnly(text)) return 0;
    const int port = text.toInt();
    return port >= 1 && port <= 65535 ? port : 0;
}

// The meaningful part of a line: the comment cut off, the surrounding blanks (and the carriage
// return of a CRLF line end) removed.
QString entryOf(const QByteArray& line) {
    QByteArray content = line;
    const int comment = content.indexOf('#');
    if (comment >= 0) content.truncate(comment);
    return QString::fromUtf8(content).trimmed();
}

QString shownEntry(const QString& entry) {
    return entry.size() <= kLongestShownEntry ? entry : entry.left(kLongestShownEntry) + "...";
}

class HostsReader {
  public:
    QVector<FleetHost> hosts;
    QString error;

    bool readLine(const QString& entry, int line) {
        FleetHost host;
        host.line = line;
        if (!(entry.startsWith('[') ? splitBracketed(entry, &host) : splitPlain(entry, &host)))
            return false;
        const QString key = host.host.toLower() + ':' + QString::number(host.port);
        const auto earlier = lineOf_.constFind(key);
        if (earlier != lineOf_.constEnd())
            return refuse(entry, QStringLiteral("is the same lidar as line %1").arg(*earlier));
        lineOf_.insert(key, line);
        hosts.append(host);
        return true;
    }

  private:
    QHash<QString, int> lineOf_;  // host (lower case) and port -> the line it was first on

    bool refuse(const QString& entry, const QString& why) {
        error = QStringLiteral("'%1' %2").arg(shownEntry(entry), why);
        return false;
    }

    bool takePort(const QString& entry, const QString& portText, FleetHost* host) {
        host->port = portNumber(portText);
        return host->port != 0 || refuse(entry, "has no valid port (1-65535)");
    }

    // "[addr]" or "[addr]:port".
    bool splitBracketed(const QString& entry, FleetHost* host) {
        const int close = entry.indexOf(']');
        if (close < 0) return refuse(entry, "has no closing ']'");
        host->host = entry.mid(1, close - 1);
        if (!isIPv6Address(host->host)) return refuse(entry, "is not a valid IPv6 address");
        const QString rest = entry.mid(close + 1);
        if (rest.isEmpty()) return true;
        if (!rest.startsWith(':')) return refuse(entry, "has text after the address's ']'");
        return takePort(entry, rest.mid(1), host);
    }

    // "host" or "host:port".
    bool splitPlain(const QString& entry, FleetHost* host) {
        const int colon = entry.indexOf(':');
        if (colon >= 0 && entry.indexOf(':', colon + 1) >= 0)
            return refuse(entry,
                          "has more than one ':' (an IPv6 address is written in "
                          "brackets: [address] or [address]:port)");
        host->host = colon >= 0 ? entry.left(colon) : entry;
        if (!isHost(host->host)) return refuse(entry, "is not an IPv4 address or a host name");
        return colon < 0 || takePort(entry, entry.mid(colon + 1), host);
    }
};

}  // namespace

bool readHostsFile(const QByteArray& text, QVector<FleetHost>* out, QString* error) {
    const QByteArray byteOrderMark = "\xEF\xBB\xBF";
    const QByteArray content = text.startsWith(byteOrderMark) ? text.mid(3) : text;
    const QList<QByteArray> lines = content.split('\n');
    HostsReader reader;
    for (int i = 0; i < lines.size(); ++i) {
        const QString entry = entryOf(lines[i]);
        if (entry.isEmpty()) continue;
        if (!reader.readLine(entry, i + 1)) {
            *error = QStringLiteral("hosts file line %1: %2").arg(i + 1).arg(reader.error);
            return false;
        }
    }
    if (reader.hosts.isEmpty()) {
        *error = QStringLiteral("no lidar in the hosts file");
        return false;
    }
    *out = reader.hosts;
    return true;
}

}  // namespace cli
