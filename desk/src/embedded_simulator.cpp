#include "embedded_simulator.h"

#include "lidar_utilities_manager.h"

EmbeddedSimulator::EmbeddedSimulator(QString configDir) : configDir_(std::move(configDir)) {}

EmbeddedSimulator::~EmbeddedSimulator() {
    stop();
}

bool EmbeddedSimulator::start(const QString& model, bool serialModel,
                              LidarUtilitiesManager& manager, QString& error) {
    stop();
    std::string why;
    if (serialModel) {
        sim::SerialLidarSimulator::Options options;
        options.model = model.toStdString();
        options.configDir = configDir_.toStdString();
        auto simulator = std::make_unique<sim::SerialLidarSimulator>(options);
        if (!simulator->Start(&why)) {
            error = "the simulator did not start: " + QString::fromStdString(why);
            return false;
        }
        manager.set_serial_port_485(QString::fromStdString(simulator->Rs485Path()));
        manager.set_serial_port_232(QString::fromStdString(simulator->UartPath()));
        serial_ = std::move(simulator);
    } else {
        sim::LidarSimulator::Options options;
        options.model = model.toStdString();
        options.configDir = configDir_.toStdString();
        options.port = 0;
        auto simulator = std::make_unique<sim::LidarSimulator>(options);
        if (!simulator->Start(&why)) {
            error = "the simulator did not start: " + QString::fromStdString(why);
            return false;
        }
        manager.setIpAddress("127.0.0.1");
        manager.setPort(QString::number(simulator->Port()));
        network_ = std::move(simulator);
    }
    model_ = model;
    return true;
}

void EmbeddedSimulator::stop() {
    network_.reset();
    serial_.reset();
    model_.clear();
}

QString EmbeddedSimulator::endpoint() const {
    if (network_) return "127.0.0.1:" + QString::number(network_->Port());
    if (serial_)
        return "RS485 " + QString::fromStdString(serial_->Rs485Path()) + ", UART " +
               QString::fromStdString(serial_->UartPath());
    return QString();
}
