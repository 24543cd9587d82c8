#include "guardchild.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QThread>

namespace kxtest {
namespace {
constexpr int patience = 120000;
}

QString GuardChild::Program()
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/kxguardchild");
}

GuardChild::GuardChild(const QStringList& arguments, const QString& program)
{
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(program.isEmpty() ? Program() : program, arguments);
    if (!process.waitForStarted(patience))
        qFatal("cannot start '%s'", qPrintable(process.program()));
    id = process.processId();
}

GuardChild::~GuardChild()
{
    Kill();
}

QString GuardChild::Line()
{
    while (!process.canReadLine()) {
        if (!process.waitForReadyRead(patience))
            break;
    }
    return QString::fromUtf8(process.readLine()).trimmed();
}

void GuardChild::Tell(const char* line)
{
    process.write(QByteArray(line) + '\n');
    while (process.bytesToWrite() > 0) {
        if (!process.waitForBytesWritten(patience))
            return;
    }
}

void GuardChild::Kill()
{
    if (process.state() == QProcess::NotRunning)
        return;
    process.kill();
    process.waitForFinished(patience);
}

QString GuardChild::Finish()
{
    process.closeWriteChannel();
    if (process.state() != QProcess::NotRunning && !process.waitForFinished(patience))
        qFatal("'%s' does not end", qPrintable(process.arguments().join(u' ')));
    return QString::fromUtf8(process.readAllStandardOutput());
}

bool GuardChild::FallsAsleep() const
{
    QElapsedTimer time;
    time.start();
    while (time.elapsed() < patience) {
        QFile status(QStringLiteral("/proc/%1/stat").arg(id));
        if (!status.open(QIODevice::ReadOnly))
            return false;
        // The name in parentheses may hold anything.
        const QByteArray text = status.readAll();
        if (text.mid(text.lastIndexOf(')') + 2, 1) == "S")
            return true;
        QThread::yieldCurrentThread();
    }
    return false;
}

} // namespace kxtest
