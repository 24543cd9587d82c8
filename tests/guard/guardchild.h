#pragma once

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QStringList>

namespace kxtest {

/** A kxguardchild that runs beside the test; it is killed with the object. */
class GuardChild
{
public:
    explicit GuardChild(const QStringList& arguments, const QString& program = {});
    ~GuardChild();

    /** Waits for one line of its output; empty when it ends without one. */
    QString Line();
    void Tell(const char* line);
    /** SIGKILL, and waits for the end. */
    void Kill();
    /** Waits for the end; the whole rest of its output. */
    QString Finish();
    bool WasKilled() const { return process.exitStatus() == QProcess::CrashExit; }
    int Status() const { return process.exitCode(); }
    qint64 Id() const { return id; }
    /** Waits until it sleeps. */
    bool FallsAsleep() const;

    static QString Program();

private:
    Q_DISABLE_COPY(GuardChild)

    QProcess process;
    qint64 id = 0;
};

} // namespace kxtest
