// The hosts file of fleet mode: what is read from it, and each refusal with its line.

#include <gtest/gtest.h>

#include <QStringList>

#include "hosts_file.h"

// Messages are shown as text when a check fails.
inline void PrintTo(const QString& text, std::ostream* out) {
    *out << '"' << text.toStdString() << '"';
}

namespace {

using cli::FleetHost;

QVector<FleetHost> hostsOf(const QByteArray& text) {
    QVector<FleetHost> hosts;
    QString error;
    EXPECT_TRUE(cli::readHostsFile(text, &hosts, &error)) << error.toStdString();
    return hosts;
}

QString refusal(const QByteArray& text) {
    QVector<FleetHost> hosts{FleetHost{"untouched", 1, 1}};
    QString error;
    EXPECT_FALSE(cli::readHostsFile(text, &hosts, &error)) << text.toStdString();
    EXPECT_EQ(hosts.size(), 1);
    EXPECT_EQ(hosts.value(0).host, "untouched") << "a refused file leaves the list as it was";
    return error;
}

void expectHost(const FleetHost& host, const QString& name, int port, int line) {
    EXPECT_EQ(host.host, name);
    EXPECT_EQ(host.port, port) << name.toStdString();
    EXPECT_EQ(host.line, line) << name.toStdString();
}

TEST(HostsFile, ReadsHostsAndPortsSkippingCommentsAndBlanks) {
    const QVector<FleetHost> hosts = hostsOf(
        "# the lidars of hall 2\n"
        "10.0.0.21\n"
        "\n"
        "   10.0.0.22:2368   # spare one\n"
        "\t\n"
        "lidar-7.hall2.example:1\n"
        "  # 10.0.0.99\n"
        "LIDAR-8:65535\n"
        "localhost");
    ASSERT_EQ(hosts.size(), 5);
    expectHost(hosts[0], "10.0.0.21", 0, 2);
    expectHost(hosts[1], "10.0.0.22", 2368, 4);
    expectHost(hosts[2], "lidar-7.hall2.example", 1, 6);
    expectHost(hosts[3], "LIDAR-8", 65535, 8);
    expectHost(hosts[4], "localhost", 0, 9);
}

TEST(HostsFile, AcceptsCrlfLineEndsAndAByteOrderMark) {
    const QVector<FleetHost> hosts = hostsOf(
        "\xEF\xBB\xBF"
        "10.0.0.1\r\n# note\r\n10.0.0.2:80 \r\n\r\nname-a\r\n");
    ASSERT_EQ(hosts.size(), 3);
    expectHost(hosts[0], "10.0.0.1", 0, 1);
    expectHost(hosts[1], "10.0.0.2", 80, 3);
    expectHost(hosts[2], "name-a", 0, 5);
}

TEST(HostsFile, ReadsIPv6AddressesInBrackets) {
    const QVector<FleetHost> hosts = hostsOf(
        "[fe80::1]:2368\n"
        "[::1]\n"
        "[2001:db8:0:0:0:0:0:7]:9\n"
        "[::ffff:10.0.0.1]\n"
        "[1::]\n");
    ASSERT_EQ(hosts.size(), 5);
    expectHost(hosts[0], "fe80::1", 2368, 1);
    expectHost(hosts[1], "::1", 0, 2);
    expectHost(hosts[2], "2001:db8:0:0:0:0:0:7", 9, 3);
    expectHost(hosts[3], "::ffff:10.0.0.1", 0, 4);
    expectHost(hosts[4], "1::", 0, 5);
}

TEST(HostsFile, RefusesInvalidPortsWithTheirLine) {
    const char* const entries[] = {"a:b",   "a:0",      "a:65536", "a:",      "a:-1",
                                   "a:+80", "a:123456", "a: 80",   "[::1]:0", "[::1]:x"};
    for (const char* entry : entries)
        EXPECT_EQ(refusal(QByteArray("ok-host\n\n") + entry + "\n"),
                  QString("hosts file line 3: '%1' has no valid port (1-65535)").arg(entry));
}

TEST(HostsFile, RefusesWhatIsNotAHostWithItsLine) {
    const QString label63(63, 'a');
    const QString long253 = label63 + '.' + label63 + '.' + label63 + '.' + QString(61, 'b');
    ASSERT_EQ(long253.size(), 253);
    EXPECT_EQ(hostsOf(long253.toUtf8()).value(0).host, long253);
    EXPECT_EQ(hostsOf(label63.toUtf8()).value(0).host, label63);
    EXPECT_EQ(hostsOf("255.255.255.255\n0.0.0.0").size(), 2);

    const QString tooLong = long253 + "c";
    const QString longLabel = QString(64, 'a') + ".b";
    const QStringList bad{"host_name",  "a b",  "-lead.example", "trail-.example", "a..b",
                          ".a",         "a.",   "10.0.0",        "10.0.0.256",     "10.0.0.1.2",
                          "1234.0.0.1", "café", ":80",           tooLong,          longLabel};
    for (const QString& entry : bad) {
        const QString shown = entry.size() > 80 ? entry.left(80) + "..." : entry;
        EXPECT_EQ(
            refusal("# fleet\n" + entry.toUtf8() + " # the bad one\n"),
            QString("hosts file line 2: '%1' is not an IPv4 address or a host name").arg(shown));
    }
}

TEST(HostsFile, RefusesIPv6WithoutBracketsOrMalformed) {
    EXPECT_EQ(refusal("fe80::1\n"),
              "hosts file line 1: 'fe80::1' has more than one ':' (an IPv6 address is written in "
              "brackets: [address] or [address]:port)");
    EXPECT_EQ(refusal("[fe80::1\n"), "hosts file line 1: '[fe80::1' has no closing ']'");
    EXPECT_EQ(refusal("[fe80::1]80\n"),
              "hosts file line 1: '[fe80::1]80' has text after the address's ']'");
    for (const char* entry : {"[]", "[fe80:::1]", "[1::2::3]", "[1:2:3:4:5:6:7]",
                              "[1:2:3:4:5:6:7:8:9]", "[1:2:3:4:5:6:7::8]", "[12345::]", "[g::1]",
                              "[::10.0.0.256]", "[10.0.0.1::]", "[host]", "[:1]"})
        EXPECT_EQ(refusal(QByteArray(entry) + "\n"),
                  QString("hosts file line 1: '%1' is not a valid IPv6 address").arg(entry));
}

TEST(HostsFile, RefusesTheSameLidarTwiceNamingBothLines) {
    EXPECT_EQ(refusal("10.0.0.1\n10.0.0.2\n\n10.0.0.1  # again\n"),
              "hosts file line 4: '10.0.0.1' is the same lidar as line 1");
    EXPECT_EQ(refusal("lidar-a:80\nLidar-A:80\n"),
              "hosts file line 2: 'Lidar-A:80' is the same lidar as line 1");
    EXPECT_EQ(refusal("[FE80::1]:5\n[fe80::1]:5\n"),
              "hosts file line 2: '[fe80::1]:5' is the same lidar as line 1");
    // Another port is another lidar (several behind one address).
    EXPECT_EQ(hostsOf("10.0.0.1\n10.0.0.1:80\n10.0.0.1:81\n").size(), 3);
}

TEST(HostsFile, RefusesAFileWithoutALidar) {
    EXPECT_EQ(refusal(""), "no lidar in the hosts file");
    EXPECT_EQ(refusal("\xEF\xBB\xBF"), "no lidar in the hosts file");
    EXPECT_EQ(refusal("# only a comment\r\n\r\n   \n#10.0.0.1\n"), "no lidar in the hosts file");
}

TEST(HostsFile, ShowsAVeryLongEntryCutShort) {
    const QByteArray entry = "a" + QByteArray(300, '_');
    EXPECT_EQ(refusal(entry), "hosts file line 1: '" + QString::fromUtf8(entry.left(80)) +
                                  "...' is not an IPv4 address or a host name");
}

}  // namespace
