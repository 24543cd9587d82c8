#include "peer.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

#include <chrono>

namespace kxtest {
namespace {

constexpr int patienceMs = 180000;

} // namespace

int RoundsWithPrograms(int rounds, int times)
{
#ifdef KX_SANITIZED
    Q_UNUSED(rounds)
    Q_UNUSED(times)
    return 0;
#else
    return (rounds + times - 1) / times;
#endif
}

bool AwaitCondition(const std::function<bool()>& condition)
{
    QTimer limit;
    limit.setSingleShot(true);
    limit.start(patienceMs);
    while (!condition()) {
        if (!limit.isActive())
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

Peer::Peer(const QString& program, const QStringList& arguments)
{
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
}

Peer::~Peer()
{
    process.kill();
    process.waitForFinished();
}

void Peer::Read()
{
    text += QString::fromUtf8(process.readAll());
}

bool Peer::Await(const QString& word)
{
    const auto hasCome = [&] {
        Read();
        return (QLatin1Char('\n') + text).contains(QLatin1Char('\n') + word);
    };
    return AwaitCondition([&] { return hasCome() || process.state() == QProcess::NotRunning; }) &&
           hasCome();
}

qint64 Peer::NearMoment()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::nanoseconds(now + std::chrono::milliseconds(10)).count();
}

void Peer::Go(qint64 moment)
{
    process.write(QByteArray::number(moment) + '\n');
    // Now, and not with the next round of the loop.
    process.waitForBytesWritten();
}

void Peer::Kill()
{
    process.kill();
}

bool Peer::AwaitEnd()
{
    const bool ended = AwaitCondition([this] { return process.state() == QProcess::NotRunning; });
    Read();
    return ended;
}

QString Peer::Result() const
{
    const QString word = QStringLiteral("\nend ");
    const qsizetype at = (QLatin1Char('\n') + text).lastIndexOf(word);
    return at < 0 ? QString() : text.mid(at + word.size() - 1).section(QLatin1Char(' '), 0, 0);
}

} // namespace kxtest
