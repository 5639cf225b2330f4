#include "device_queue.h"

#include <QMetaMethod>
#include <QMetaObject>
#include <array>

namespace {

// QMetaMethod::invoke takes at most ten arguments.
constexpr int kMostArguments = 10;

QMetaMethod findInvokable(const QMetaObject& meta, const QByteArray& name, int arguments) {
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        const QMetaMethod method = meta.method(i);
        if (method.methodType() == QMetaMethod::Signal) continue;
        if (method.access() != QMetaMethod::Public) continue;
        if (method.name() == name && method.parameterCount() == arguments) return method;
    }
    return QMetaMethod();
}

}  // namespace

DeviceQueue::DeviceQueue(QObject& target, QObject* parent)
    : QObject(parent), target_(target), thread_([this] { runLoop(); }) {}

DeviceQueue::~DeviceQueue() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closing_ = true;
        pending_.clear();
    }
    wake_.notify_all();
    thread_.join();
}

std::function<QVariant()> DeviceQueue::invocation(const QString& method,
                                                  const QVariantList& arguments,
                                                  QString& why) const {
    if (arguments.size() > kMostArguments) {
        why = "too many arguments";
        return {};
    }
    const QMetaMethod found =
        findInvokable(*target_.metaObject(), method.toLatin1(), arguments.size());
    if (!found.isValid()) {
        why = "no operation " + method + " with " + QString::number(arguments.size()) +
              " argument(s)";
        return {};
    }
    QVariantList converted;
    for (int i = 0; i < arguments.size(); ++i) {
        QVariant value = arguments[i];
        if (!value.convert(found.parameterType(i))) {
            why = "argument " + QString::number(i + 1) + " of " + method + " is not a " +
                  QString::fromLatin1(found.parameterTypes().at(i));
            return {};
        }
        converted << value;
    }
    QObject* target = &target_;
    return [target, found, converted]() mutable {
        std::array<QGenericArgument, kMostArguments> passed{};
        for (int i = 0; i < converted.size(); ++i)
            passed[i] = QGenericArgument(converted[i].typeName(), converted[i].constData());
        const int returnType = found.returnType();
        QVariant result =
            returnType == QMetaType::Void ? QVariant() : QVariant(returnType, nullptr);
        const QGenericReturnArgument returned =
            returnType == QMetaType::Void ? QGenericReturnArgument()
                                          : QGenericReturnArgument(found.typeName(), result.data());
        found.invoke(target, Qt::DirectConnection, returned, passed[0], passed[1], passed[2],
                     passed[3], passed[4], passed[5], passed[6], passed[7], passed[8], passed[9]);
        return result;
    };
}

int DeviceQueue::call(const QString& method, const QVariantList& arguments) {
    QString why;
    std::function<QVariant()> job = invocation(method, arguments, why);
    if (!job) {
        emit refused(method, why);
        return -1;
    }
    return enqueue(method, std::move(job));
}

int DeviceQueue::post(const QString& label, std::function<QVariant()> job) {
    return enqueue(label, std::move(job));
}

int DeviceQueue::enqueue(const QString& label, std::function<QVariant()> job) {
    int ticket = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ticket = nextTicket_++;
        pending_.push_back(Operation{ticket, label, std::move(job)});
    }
    wake_.notify_one();
    announceBusy();
    return ticket;
}

int DeviceQueue::dropQueued() {
    size_t dropped = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        dropped = pending_.size();
        pending_.clear();
    }
    idle_.notify_all();
    announceBusy();
    return static_cast<int>(dropped);
}

bool DeviceQueue::busy() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return inFlight_ || !pending_.empty();
}

QString DeviceQueue::running() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return running_;
}

void DeviceQueue::waitUntilIdle() {
    std::unique_lock<std::mutex> lock(mutex_);
    idle_.wait(lock, [this] { return !inFlight_ && pending_.empty(); });
}

void DeviceQueue::announceBusy() {
    // From any thread: the property's readers are on the UI thread.
    QMetaObject::invokeMethod(
        this, [this] { emit busyChanged(); }, Qt::QueuedConnection);
}

void DeviceQueue::runLoop() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return closing_ || !pending_.empty(); });
        if (closing_) break;
        Operation operation = std::move(pending_.front());
        pending_.pop_front();
        inFlight_ = true;
        running_ = operation.label;
        lock.unlock();
        announceBusy();
        const QVariant result = operation.job();
        const int ticket = operation.ticket;
        const QString label = operation.label;
        QMetaObject::invokeMethod(
            this, [this, ticket, label, result] { emit finished(ticket, label, result); },
            Qt::QueuedConnection);
        lock.lock();
        inFlight_ = false;
        running_.clear();
        if (pending_.empty()) idle_.notify_all();
        lock.unlock();
        announceBusy();
        lock.lock();
    }
    inFlight_ = false;
    idle_.notify_all();
}
