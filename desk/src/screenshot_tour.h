#pragma once

// `lidar-desk --screenshots DIR`: once connected, shows every view the window offers for the
// model in turn, waits until its data has arrived (the device queue idle and a moment to draw),
// and saves the window as DIR/MODEL-NN-VIEW.png; then the window closes.

#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>

class QQuickWindow;
class DeskSession;

class ScreenshotTour : public QObject {
    Q_OBJECT
  public:
    ScreenshotTour(QQuickWindow& window, DeskSession& session, QString folder);

    void start();
    // The files written so far.
    const QStringList& written() const { return written_; }

  signals:
    // ok: every view was saved; otherwise `why` says what stopped the tour.
    void finished(bool ok, const QString& why);

  private:
    enum class Stage { kConnecting, kSettling, kDone };
    void step();
    void showNextView();
    bool saveCurrentView();
    QStringList shownViews() const;
    void finish(bool ok, const QString& why);

    QQuickWindow& window_;
    DeskSession& session_;
    QString folder_;
    QTimer poll_;
    Stage stage_ = Stage::kConnecting;
    QStringList views_;
    int next_ = 0;
    int waitedMs_ = 0;
    int quietMs_ = 0;
    QStringList written_;
};
