#include "session.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QFileInfo>
#include <QThread>
#include <QTimer>
#include <algorithm>
#include <cstdlib>
#include <tuple>

#include "fleet.h"
#include "output.h"
#include "sdk/authorized_vrc_client.h"
#include "sdk/logger.h"
#include "sdk/serial_client.h"
#include "sdk/vrc_client.h"

namespace cli {
namespace {

// The connect worker gives up by itself (TCP connect and two probes of 4 s each); this is only
// a backstop against a worker that never reports.
constexpr int kConnectDeadlineMs = 30000;
constexpr int kConnectPollMs = 20;

QString qs(const std::string& text) {
    return QString::fromStdString(text);
}

QString connectionKindOf(int connectType) {
    return connectType == 1 ? "reached over serial lines" : "reached as VRC over a serial line";
}

}  // namespace

// A read request's result in words: the device's status byte, or the client's own failure.
QString readFailureText(int code) {
    return QString::fromStdString(lidar::DescribeVrcResult(code));
}

Session::Session(const Options& options, lidar::Workplace workplace)
    : options_(options), workplace_(std::move(workplace)) {
    if (options_.host.isEmpty() && options_.rs485.isEmpty()) isolateSettings();
    manager_ = std::make_unique<LidarUtilitiesManager>(0, "");
    // The children of one fleet run at once: saving the connection settings, they would race on
    // the one file.
    if (options_.fleetChild) manager_->setRemembersConnectionSettings(false);
    receiver_ = std::make_unique<QObject>();
    wireMessages();
}

Session::~Session() {
    receiver_.reset();
    manager_.reset();
    simulator_.reset();
}

void Session::isolateSettings() {
    privateHome_ = std::make_unique<QTemporaryDir>();
    if (!privateHome_->isValid()) return;
    setenv("HOME", privateHome_->path().toLocal8Bit().constData(), 1);
    // The documents folder is looked up through the user-dirs file under XDG_CONFIG_HOME.
    unsetenv("XDG_CONFIG_HOME");
}

void Session::wireMessages() {
    LidarUtilitiesManager* m = manager_.get();
    QObject* r = receiver_.get();
    const bool verbose = options_.verbose;
    QObject::connect(
        m, &LidarUtilitiesManager::sendLogMessage, r,
        [this, verbose](const QString& message, const QString& level) {
            // Warnings and errors explain failures, and so does a refused authorisation: always
            // shown.
            const bool authorisationFailed = message.startsWith("Authorisation refused") ||
                                             message.startsWith("Authorisation probe failed") ||
                                             message.contains("requires authorisation but");
            if (verbose || level == "WARNING" || level == "ERROR" || authorisationFailed)
                tell(level + ": " + message);
        },
        Qt::DirectConnection);
    QObject::connect(
        m, &LidarUtilitiesManager::errorMessageChanged, r,
        [this] {
            // The console's long-reply notice comes through the error channel but is a warning.
            const QString text = manager_->getErrorMessage();
            if (text.startsWith("WARNING: ")) {
                tell(text);
                return;
            }
            ++errors_;
            tell("error: " + text);
        },
        Qt::DirectConnection);
    QObject::connect(
        m, &LidarUtilitiesManager::successMessageChanged, r,
        [this] { tell(manager_->getSuccessMessage()); }, Qt::DirectConnection);
}

void Session::tell(const QString& line) {
    std::lock_guard<std::mutex> lock(heldMutex_);
    if (holding_)
        heldMessages_ << line;
    else
        printDiagnostic(line);
}

void Session::holdMessages() {
    std::lock_guard<std::mutex> lock(heldMutex_);
    holding_ = true;
}

void Session::releaseMessages() {
    std::lock_guard<std::mutex> lock(heldMutex_);
    holding_ = false;
    for (const QString& line : heldMessages_) printDiagnostic(line);
    heldMessages_.clear();
}

void Session::printHeldMessages() {
    std::lock_guard<std::mutex> lock(heldMutex_);
    for (const QString& line : heldMessages_) printDiagnostic(line);
    heldMessages_.clear();
}

QStringList Session::takeHeldMessages() {
    std::lock_guard<std::mutex> lock(heldMutex_);
    holding_ = false;
    QStringList held;
    held.swap(heldMessages_);
    return held;
}

int Session::loadModel() {
    const QVariantList models = manager_->getLidarModelList();
    if (!models.contains(options_.model)) {
        QStringList names;
        for (const QVariant& name : models) names << name.toString();
        printDiagnostic("lidarutil: unknown model '" + options_.model +
                        "'; the models are: " + names.join(", "));
        return kExitUsage;
    }
    Logger::GetInstance().ClearEntries();
    manager_->InitConfigFileParser(options_.model);
    variablesBuilt_ = false;
    // --verbose prints the logger's lines as they come; otherwise a count and the first few.
    if (!options_.verbose) reportCatalogueProblems();
    return kExitOk;
}

void Session::reportCatalogueProblems() const {
    constexpr int kShown = 3;
    std::vector<Logger::Entry> entries;
    for (const Logger::Entry& entry : Logger::GetInstance().RecentEntries()) {
        if (entry.level != Logger::kWarning && entry.level != Logger::kConfigError) continue;
        if (entry.function != "ConfigParser::ExtractConfigInfo") continue;
        entries.push_back(entry);
    }
    // In file order: the parser reports some problems only after the last row.
    std::stable_sort(entries.begin(), entries.end(),
                     [](const Logger::Entry& a, const Logger::Entry& b) {
                         return std::tie(a.file, a.line) < std::tie(b.file, b.line);
                     });
    QStringList problems;
    for (const Logger::Entry& entry : entries)
        problems << qs(entry.file) + ":" + QString::number(entry.line) + ": " + qs(entry.message);
    if (problems.isEmpty()) return;
    printDiagnostic("warning: the " + options_.model + " catalogue has " +
                    QString::number(problems.size()) + " problem" +
                    (problems.size() == 1 ? "" : "s") +
                    (problems.size() > kShown
                         ? " (the first " + QString::number(kShown) + " below; --verbose shows all)"
                         : QString()) +
                    ":");
    for (int i = 0; i < problems.size() && i < kShown; ++i) printDiagnostic("  " + problems[i]);
}

int Session::requireNetworkModel(const QString& command) const {
    const int kind = manager_->getConnectType();
    if (kind == 0) return kExitOk;
    printDiagnostic("lidarutil: " + options_.model + " is " + connectionKindOf(kind) + "; " +
                    command + " needs a network model");
    return kExitUsage;
}

bool Session::serialLines() const {
    return manager_->getConnectType() == 1;
}

QString Session::endpoint() const {
    if (serialLines())
        return "RS485 " + manager_->serial_port_485() + ", UART " + manager_->serial_port_232();
    return manager_->getIpAddress() + ":" + manager_->getPort();
}

bool Session::startSerialSimulator() {
    sim::SerialLidarSimulator::Options simOptions;
    simOptions.model = options_.model.toStdString();
    simOptions.configDir = "./Config";
    serialSimulator_ = std::make_unique<sim::SerialLidarSimulator>(simOptions);
    std::string error;
    if (!serialSimulator_->Start(&error)) {
        printDiagnostic("error: the simulator did not start: " + QString::fromStdString(error));
        return false;
    }
    return true;
}

// The lines of the serial model: the ones named, or the embedded simulator's.
bool Session::chooseSerialLines() {
    if (!options_.rs485.isEmpty()) {
        manager_->set_serial_port_485(options_.rs485);
        manager_->set_serial_port_232(options_.uart);
        return true;
    }
    if (!startSerialSimulator()) return false;
    manager_->set_serial_port_485(QString::fromStdString(serialSimulator_->Rs485Path()));
    manager_->set_serial_port_232(QString::fromStdString(serialSimulator_->UartPath()));
    return true;
}

bool Session::startSimulator() {
    sim::LidarSimulator::Options simOptions;
    simOptions.model = options_.model.toStdString();
    simOptions.configDir = "./Config";
    simOptions.port = 0;
    simOptions.requiredToken = options_.token.toStdString();
    simulator_ = std::make_unique<sim::LidarSimulator>(simOptions);
    std::string error;
    if (!simulator_->Start(&error)) {
        printDiagnostic("error: the simulator did not start: " + QString::fromStdString(error));
        return false;
    }
    return true;
}

int Session::connect() {
    if (serialLines()) {
        if (!options_.host.isEmpty()) {
            printDiagnostic("lidarutil: " + options_.model +
                            " is reached over its serial lines (--rs485, --uart), not --host");
            return kExitUsage;
        }
        if (!chooseSerialLines()) return kExitFailed;
    } else if (!options_.rs485.isEmpty()) {
        printDiagnostic("lidarutil: " + options_.model +
                        " has no serial lines of its own; --rs485 and --uart are for Wren");
        return kExitUsage;
    } else if (options_.host.isEmpty()) {
        if (!startSimulator()) return kExitFailed;
        manager_->setIpAddress("127.0.0.1");
        manager_->setPort(QString::number(simulator_->Port()));
    } else {
        manager_->setIpAddress(options_.host);
        if (!options_.port.isEmpty()) manager_->setPort(options_.port);
    }
    if (!options_.localPort.isEmpty()) {
        if (!manager_->getEnableVrcClientHostPortUi())
            printDiagnostic("note: " + options_.model +
                            " lets the system choose the local port; --local-port is ignored");
        manager_->setVrcClientHostPort(options_.localPort);
    }
    manager_->SetLogBytesFlowStatus(options_.verbose);
    // One-shot commands read what they need themselves; a monitor read once a second in the
    // background would only compete with them (and its failures are not theirs).
    manager_->setMonitorAutoRefresh(false);

    const QString what =
        simulator_ || serialSimulator_ ? " (simulated " + options_.model + ")" : QString();
    printDiagnostic("connecting to " + endpoint() + what + " ...");
    if (!attemptConnection()) return kExitFailed;
    if (options_.fleetChild) tellSerialNumber();
    return kExitOk;
}

// A fleet child tells its parent which lidar answered (fleet.h): the catalogue's variable of type
// SN, read now; an empty number when the model has none or the lidar did not give it.
void Session::tellSerialNumber() {
    QString number;
    for (const VarPosition& position : variables()) {
        if (position.var->var_type != "SN") continue;
        std::vector<uint8_t> value;
        manager_->GetInfoFromLidar(position.var, value);
        if (!value.empty()) number = manager_->currentValueOf(position.var).trimmed();
        break;
    }
    printDiagnostic(kFleetSerialNumberPrefix + number);
}

void Session::tellOutcome(const QString& line) const {
    printDiagnostic(line);
    if (options_.fleetChild) printDiagnostic(kFleetSummaryPrefix + line);
}

bool Session::reconnect() {
    printDiagnostic("connecting again to " + endpoint() + " ...");
    return attemptConnection();
}

bool Session::awaitLidar(const QString& host, int seconds) {
    if (!host.isEmpty()) manager_->setIpAddress(host);
    printDiagnostic("waiting for the lidar at " + endpoint() + " to answer ...");
    QElapsedTimer clock;
    clock.start();
    while (true) {
        holdMessages();
        const bool connected = attemptConnection(true);
        takeHeldMessages();
        if (connected) return true;
        if (clock.elapsed() >= qint64{seconds} * 1000) break;
        QThread::msleep(1000);
    }
    printDiagnostic("error: the lidar at " + endpoint() + " did not answer within " +
                    QString::number(seconds) + " s");
    return false;
}

bool Session::attemptConnection(bool quiet) {
    const int errorsBefore = errors_;
    if (!manager_->ConnectLidar()) {
        if (!quiet) printDiagnostic("error: the manager did not start a connection");
        return false;
    }
    QEventLoop loop;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &loop, [this, &loop] {
        if (!manager_->isConnecting()) loop.quit();
    });
    poll.start(kConnectPollMs);
    QTimer::singleShot(kConnectDeadlineMs, &loop, [&loop] { loop.exit(1); });
    const bool timedOut = loop.exec() != 0;
    if (timedOut) {
        if (!quiet)
            printDiagnostic("error: no answer from " + endpoint() + " within " +
                            QString::number(kConnectDeadlineMs / 1000) + " s");
        return false;
    }
    manager_->waitForWorkers();
    if (manager_->getIsConnected()) return baudRateAnswered();
    if (errors_ == errorsBefore && !quiet)
        printDiagnostic("error: could not connect to " + endpoint());
    return false;
}

// A VRC-over-serial connect sends the point-cloud baud rate and, as designed, goes on whatever
// the lidar answers; a lidar that did not answer at all is not one the commands can reach.
bool Session::baudRateAnswered() {
    if (manager_->getConnectType() != 2) return true;
    const int code = manager_->getConnectBaudRateResult();
    if (code > 0)
        printDiagnostic("warning: the lidar refused the serial baud rate " + manager_->baud_rate() +
                        " at connect: " + readFailureText(code));
    if (code >= 0) return true;
    printDiagnostic("error: the lidar did not answer at connect (the serial baud-rate command: " +
                    readFailureText(code) + ")");
    manager_->Stop();
    return false;
}

bool Session::connectionAlive() const {
    return manager_->isDeviceLinkOpen();
}

ReadOutcome Session::readModule(int module) {
    const QStringList names = moduleNames();
    const QString name = module < names.size() ? names[module] : QString::number(module);
    printDiagnostic("reading " + name + " ...");
    manager_->readModule(module);
    const auto failures = manager_->getLastModuleReadFailures();
    if (!connectionAlive()) {
        // The request that ended the connection (a time-out or a broken reply closes it) is
        // named with its cause; the requests after it were not sent.
        const auto ended = std::find_if(failures.begin(), failures.end(), [](const auto& failure) {
            return failure.code <= -2 && failure.code >= -4;
        });
        if (ended != failures.end())
            printDiagnostic("error: request " + qs(ended->request) + " while reading " + name +
                            ": " + readFailureText(ended->code));
        printDiagnostic("error: the connection to the lidar broke while reading " + name);
        return ReadOutcome::kConnectionLost;
    }
    for (const auto& failure : failures) {
        // Hidden variables are not the user's to see, here either.
        QStringList variables;
        for (const std::string& variable : failure.names) {
            const VarInfo* var = manager_->searchVarPtr(variable, "var_name");
            if (var == nullptr || !var->hidden) variables << qs(variable);
        }
        if (variables.isEmpty()) variables << "values the catalogue keeps hidden";
        printDiagnostic("error: could not read " + variables.join(", ") + " (request " +
                        qs(failure.request) + "): " + readFailureText(failure.code));
    }
    explainSerialTimeout(failures);
    return failures.empty() ? ReadOutcome::kComplete : ReadOutcome::kIncomplete;
}

// On the serial lines a time-out has more to say than "no answer": what did arrive instead (a
// point-cloud stream on swapped lines, late replies, damaged frames).
void Session::explainSerialTimeout(
    const std::vector<LidarUtilitiesManager::ReadFailure>& failures) {
    if (!serialLines()) return;
    const bool timedOut = std::any_of(failures.begin(), failures.end(), [](const auto& failure) {
        return failure.code == lidar::kVrcTimeout;
    });
    const std::shared_ptr<lidar::SerialClient> client = manager_->getSerialClient();
    if (timedOut && client) printDiagnostic("error: " + qs(client->LastError()));
}

bool Session::explainRefusal() const {
    const std::shared_ptr<AuthorizedVrcClient> client = manager_->getAuthorizedClient();
    if (!client || client->GetLastReturnCode() != lidar::vrc::kStatusNotPermitted ||
        client->GetGate().IsAuthorised())
        return false;
    const AuthConfig& config = client->GetConfig();
    if (config.token.empty())
        printDiagnostic("not authorised: the lidar requires authorisation and access profile " +
                        qs(config.profile) + " has no token (./Config/auth_config.csv)");
    else
        printDiagnostic("not authorised: the lidar refused the token of access profile " +
                        qs(config.profile) +
                        " (./Config/auth_config.csv), so it refuses writes from this connection");
    return true;
}

QStringList Session::moduleNames() {
    QStringList names;
    for (const QVariant& name : manager_->catalogueLevel1List()) names << name.toString();
    return names;
}

int Session::findModule(const QString& name) {
    const QStringList names = moduleNames();
    for (int i = 0; i < names.size(); ++i)
        if (names[i].compare(name, Qt::CaseInsensitive) == 0) return i;
    return -1;
}

// SetText and Run address the catalogue tree itself; the UI's variable map leaves hidden
// variables out and so cannot give those indexes. The tree's shape and the variables' catalogue
// fields never change once a model is loaded; only current_val does (read through the manager).
const std::vector<VarPosition>& Session::variables() {
    if (variablesBuilt_) return variables_;
    variables_.clear();
    const ConfigParser* parser = manager_->getCurrentParser();
    if (parser != nullptr) {
        const auto& tree = parser->varTree;
        for (size_t m = 0; m < tree.size(); ++m)
            for (size_t p = 0; p < tree[m].size(); ++p)
                for (size_t r = 0; r < tree[m][p].size(); ++r)
                    variables_.push_back({static_cast<int>(m), static_cast<int>(p),
                                          static_cast<int>(r), tree[m][p][r]});
    }
    variablesBuilt_ = true;
    return variables_;
}

const VarPosition* Session::findVariable(const QString& name) {
    const std::string exact = name.toStdString();
    for (const VarPosition& position : variables())
        if (!position.var->hidden && position.var->var_name == exact) return &position;
    const VarPosition* found = nullptr;
    for (const VarPosition& position : variables()) {
        if (position.var->hidden) continue;
        if (QString::fromStdString(position.var->var_name).compare(name, Qt::CaseInsensitive))
            continue;
        if (found != nullptr && found->var != position.var) return nullptr;  // ambiguous
        found = &position;
    }
    return found;
}

const VarPosition* Session::positionOf(const VarInfo* var) {
    for (const VarPosition& position : variables())
        if (position.var == var) return &position;
    return nullptr;
}

int Session::moduleWhere(const std::function<bool(const VarInfo&)>& has) {
    for (const VarPosition& position : variables())
        if (has(*position.var)) return position.module;
    return -1;
}

}  // namespace cli
