#include "screenshot_tour.h"

#include <QDir>
#include <QImage>
#include <QQuickWindow>
#include <QVariant>

#include "desk_session.h"
#include "lidar_utilities_manager.h"

namespace {

constexpr int kPollMs = 100;
constexpr int kConnectLimitMs = 30000;
// A view is drawn after the queue has been idle this long (its reads have ended and their
// values are shown); it is drawn anyway after the limit.
constexpr int kQuietMs = 1500;
constexpr int kViewLimitMs = 30000;

QString fileNameOf(const QString& model, int number, const QString& view) {
    QString name = view.toLower();
    name.replace(' ', '-');
    return QString("%1-%2-%3.png").arg(model.toLower()).arg(number, 2, 10, QChar('0')).arg(name);
}

}  // namespace

ScreenshotTour::ScreenshotTour(QQuickWindow& window, DeskSession& session, QString folder)
    : window_(window), session_(session), folder_(std::move(folder)) {
    poll_.setInterval(kPollMs);
    connect(&poll_, &QTimer::timeout, this, &ScreenshotTour::step);
}

void ScreenshotTour::start() {
    if (!QDir().mkpath(folder_)) {
        finish(false, "cannot create " + folder_);
        return;
    }
    poll_.start();
}

QStringList ScreenshotTour::shownViews() const {
    QStringList names;
    for (const QVariant& view : window_.property("views").toList()) {
        const QVariantMap entry = view.toMap();
        if (entry.value("shown").toBool()) names << entry.value("name").toString();
    }
    return names;
}

void ScreenshotTour::step() {
    waitedMs_ += kPollMs;
    LidarUtilitiesManager& manager = session_.manager();
    if (stage_ == Stage::kConnecting) {
        if (manager.getIsConnected() && !session_.connecting()) {
            views_ = shownViews();
            showNextView();
        } else if (!session_.connecting() && waitedMs_ > kPollMs * 5) {
            finish(false, "not connected: " + manager.getErrorMessage());
        } else if (waitedMs_ > kConnectLimitMs) {
            finish(false, "the connection took too long");
        }
        return;
    }
    if (stage_ != Stage::kSettling) return;
    quietMs_ = session_.queue()->busy() ? 0 : quietMs_ + kPollMs;
    if (quietMs_ < kQuietMs && waitedMs_ < kViewLimitMs) return;
    if (!saveCurrentView()) return;
    showNextView();
}

void ScreenshotTour::showNextView() {
    if (next_ >= views_.size()) {
        finish(true, QString());
        return;
    }
    QVariant shown;
    QMetaObject::invokeMethod(&window_, "showView", Q_RETURN_ARG(QVariant, shown),
                              Q_ARG(QVariant, views_[next_]));
    stage_ = Stage::kSettling;
    waitedMs_ = 0;
    quietMs_ = 0;
}

bool ScreenshotTour::saveCurrentView() {
    const QString model = session_.manager().getSelectedLidarModel();
    const QString path = QDir(folder_).filePath(fileNameOf(model, next_ + 1, views_[next_]));
    const QImage image = window_.grabWindow();
    if (image.isNull() || !image.save(path)) {
        finish(false, "cannot write " + path);
        return false;
    }
    written_ << path;
    ++next_;
    return true;
}

void ScreenshotTour::finish(bool ok, const QString& why) {
    poll_.stop();
    stage_ = Stage::kDone;
    emit finished(ok, why);
}
