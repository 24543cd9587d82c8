#include "fileworker.h"

#include "filepath.h"

#include <QCoreApplication>
#include <QEvent>
#include <QPointer>

#include <algorithm>
#include <exception>
#include <limits>

namespace common {
namespace {

constexpr int signalIntervalMs = 20;
constexpr QEvent::Type wakeEvent = QEvent::User;

} // namespace

std::pair<int, int> ScaleProgress(std::uint64_t done, std::uint64_t total)
{
    constexpr auto largest = static_cast<std::uint64_t>(std::numeric_limits<int>::max());
    if (total == 0)
        return {1, 1};
    done = std::min(done, total);
    int shift = 0;
    while ((total >> shift) > largest)
        ++shift;
    return {static_cast<int>(done >> shift), static_cast<int>(total >> shift)};
}

std::uint64_t AddSaturated(std::uint64_t left, std::uint64_t right)
{
    const std::uint64_t sum = left + right;
    return sum < left ? std::numeric_limits<std::uint64_t>::max() : sum;
}

FileWorker::FileWorker(QObject* parent, int startCode_, const QString& startText_)
    : QObject(parent), startCode(startCode_), startText(startText_)
{
}

FileWorker::~FileWorker()
{
    Q_ASSERT(!thread.joinable());
}

bool FileWorker::Start()
{
    if (started)
        return false;
    started = true;
    try {
        if (const fileops::Error error = fileops::At(fileops::Step::Start))
            throw std::system_error(error);
        thread = std::thread([this] { Run(); });
    } catch (const std::system_error& error) {
        Finish({startCode, QStringLiteral("%1: %2").arg(startText, Reason(error.code()))});
    }
    return true;
}

void FileWorker::Stop()
{
    aborted.store(true, std::memory_order_relaxed);
    if (thread.joinable())
        thread.join();
    QCoreApplication::removePostedEvents(this, wakeEvent);
}

void FileWorker::SetTotal(std::uint64_t amount)
{
    const std::lock_guard<std::mutex> lock(mutex);
    total = amount;
}

bool FileWorker::Advance(std::uint64_t amount)
{
    counted = AddSaturated(counted, amount);
    if (sinceWake.hasExpired(signalIntervalMs)) {
        const std::lock_guard<std::mutex> lock(mutex);
        done = std::min(counted, total);
        Wake();
    }
    return !IsAborted();
}

void FileWorker::Run()
{
    sinceWake.start();
    Failure failure;
    // An exception that leaves a thread would end the host.
    try {
        failure = Work();
    } catch (const std::exception& exception) {
        failure = {startCode, QStringLiteral("%1: %2").arg(
                                  startText, QString::fromLocal8Bit(exception.what()))};
    }
    Finish(failure);
}

void FileWorker::Finish(const Failure& failure)
{
    const std::lock_guard<std::mutex> lock(mutex);
    if (!failure)
        done = total;
    outcome = failure;
    Wake();
}

// Called with the mutex held, so that whoever takes the event away comes after its making.
void FileWorker::Wake()
{
    sinceWake.start();
    if (isWakePosted)
        return;
    isWakePosted = true;
    QCoreApplication::postEvent(this, new QEvent(wakeEvent));
}

bool FileWorker::event(QEvent* event)
{
    if (event->type() != wakeEvent)
        return QObject::event(event);
    Deliver();
    return true;
}

void FileWorker::Deliver()
{
    std::pair<int, int> current;
    std::optional<Failure> result;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        isWakePosted = false;
        current = ScaleProgress(done, total);
        result = outcome;
    }
    if (result && thread.joinable())
        thread.join();
    if (IsAborted())
        return;
    // A failed run ends at the last amount it told.
    const bool isFailed = result && *result;
    if (!isFailed && current != reported) {
        reported = current;
        const QPointer<FileWorker> alive(this);
        Q_EMIT progress(current.first, current.second);
        if (!alive)
            return;
    }
    if (!result)
        return;
    if (isFailed)
        Q_EMIT failed(result->code, result->text);
    else
        Q_EMIT succesed();
}

} // namespace common
