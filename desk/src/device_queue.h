#pragma once

// The window's one ordered queue of device operations. Every call that talks to a lidar runs
// here, on one thread of its own, so the UI thread keeps drawing whatever the lidar does; the
// outcome reaches the views through the manager's signals (queued onto the UI thread), and the
// queue itself tells when an operation ends.

#include <QObject>
#include <QString>
#include <QVariant>
#include <QVariantList>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

class DeviceQueue : public QObject {
    Q_OBJECT
    // True from the moment an operation is queued until the queue is empty again.
    Q_PROPERTY(bool busy READ busy NOTIFY busyChanged)
    // What runs now, in words for the status line ("" when idle).
    Q_PROPERTY(QString running READ running NOTIFY busyChanged)

  public:
    // `target`'s invokable methods are what `call` runs; it must outlive the queue.
    explicit DeviceQueue(QObject& target, QObject* parent = nullptr);
    ~DeviceQueue() override;
    DeviceQueue(const DeviceQueue&) = delete;
    DeviceQueue& operator=(const DeviceQueue&) = delete;

    // Queues the target's invokable `method` with `arguments` (converted to its parameter types).
    // Returns the operation's ticket, or -1 when the target has no such method for that many
    // arguments or an argument does not convert (then `refused` tells why, at once).
    Q_INVOKABLE int call(const QString& method, const QVariantList& arguments = {});
    // Queues a job of the window's own (several manager calls that belong together); `label`
    // names it while it runs. Returns its ticket.
    int post(const QString& label, std::function<QVariant()> job);
    // Forgets every operation that has not started; the one in flight goes on until it returns
    // (whoever wants it over sooner wakes it, as the manager's Stop does). Returns how many were
    // dropped.
    Q_INVOKABLE int dropQueued();

    bool busy() const;
    QString running() const;
    // Blocks until the queue is empty: for tests and for closing the window.
    void waitUntilIdle();

  signals:
    // On the UI thread (queued), after the operation returned.
    void finished(int ticket, const QString& method, const QVariant& result);
    void refused(const QString& method, const QString& why);
    void busyChanged();

  private:
    struct Operation {
        int ticket = 0;
        QString label;
        std::function<QVariant()> job;
    };
    std::function<QVariant()> invocation(const QString& method, const QVariantList& arguments,
                                         QString& why) const;
    int enqueue(const QString& label, std::function<QVariant()> job);
    void runLoop();
    void announceBusy();

    QObject& target_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Operation> pending_;
    QString running_;
    bool inFlight_ = false;
    bool closing_ = false;
    int nextTicket_ = 1;
    std::condition_variable idle_;
    std::thread thread_;
};
