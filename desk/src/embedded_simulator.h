#pragma once

// The "simulated lidar" of the window: the simulator that lidarutil embeds, of the selected
// model, on a loopback port (the network models) or on pseudo-terminals (the serial model), so
// that every view works with no hardware.

#include <QString>
#include <memory>

#include "sim/lidar_simulator.h"
#include "sim/serial_lidar_simulator.h"

class LidarUtilitiesManager;

class EmbeddedSimulator {
  public:
    // `configDir` holds the catalogues, as the manager reads them ("./Config").
    explicit EmbeddedSimulator(QString configDir);
    ~EmbeddedSimulator();
    EmbeddedSimulator(const EmbeddedSimulator&) = delete;
    EmbeddedSimulator& operator=(const EmbeddedSimulator&) = delete;

    // Starts the simulator of `model` (stopping any other) and points the manager's connection
    // settings at it. False with the reason in `error` when it cannot start.
    bool start(const QString& model, bool serialModel, LidarUtilitiesManager& manager,
               QString& error);
    void stop();
    bool running() const { return network_ || serial_; }
    QString model() const { return model_; }
    // Where the manager reaches it, for the status line.
    QString endpoint() const;

    // The running simulator of either kind; null when it is of the other kind or stopped. Tests
    // look into them.
    sim::LidarSimulator* network() const { return network_.get(); }
    sim::SerialLidarSimulator* serial() const { return serial_.get(); }

  private:
    QString configDir_;
    QString model_;
    std::unique_ptr<sim::LidarSimulator> network_;
    std::unique_ptr<sim::SerialLidarSimulator> serial_;
};
