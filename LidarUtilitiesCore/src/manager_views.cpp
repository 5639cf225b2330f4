#include "manager_views.h"

#include "field_of_view.h"
#include "lidar_utilities_manager.h"
#include "page_reader.h"
#include "parameter_catalogue.h"
#include "user_messages.h"

bool ManagerViews::upgrading() const {
    return manager_.getIsUpgrading();
}

bool ManagerViews::downloadingLog() const {
    return manager_.getIsDownloadLog();
}

int ManagerViews::moduleInUse() const {
    return manager_.getModuleIndexUse();
}

void ManagerViews::storeReportedFov(const float* values, int count) {
    manager_.fov_->storeReported(values, count);
}

int ManagerViews::restartLidar() {
    return manager_.Restart();
}

// The link is made before the page reader: its page-loop steps are passed on to the reader.
void ManagerViews::askPageLoopToStop() {
    manager_.reader_->askPageLoopToStop();
}

void ManagerViews::endPageLoop() {
    manager_.reader_->askPageLoopToStop();
    manager_.reader_->joinPageLoop();
}

void ManagerViews::startPageLoop(int kind) {
    manager_.reader_->startPageLoop(kind);
}

void ManagerViews::startMonitorAutoRefreshIfOn() {
    if (manager_.getMonitorAutoRefresh()) manager_.startMonitorRefreshLoop();
}

std::string ManagerViews::catalogueFilePath() const {
    return manager_.catalogue_->configFilePath();
}

void ManagerViews::announceVariableMap() {
    manager_.reader_->notifyMyMapChanged();
}

void ManagerViews::stopConnection() {
    manager_.Stop();
}

void ManagerViews::log(const std::string& line, LogLevel level) {
    manager_.messages_->log(line, level);
}

void ManagerViews::showError(const QString& text) {
    manager_.messages_->showError(text);
}

void ManagerViews::showSuccess(const QString& text) {
    manager_.messages_->showSuccess(text);
}

void ManagerViews::deviceBytes(const std::string& line) {
    manager_.messages_->deviceBytes(line);
}

bool ManagerViews::suspendByteFlow() {
    return manager_.messages_->suspendByteFlow();
}

void ManagerViews::restoreByteFlow(bool wasOn) {
    manager_.messages_->restoreByteFlow(wasOn);
}
