#include "stepupdater.h"

#include <QMetaObject>
#include <QTest>
#include <QTimer>

namespace kxtest {

void Raise(updater::Updater& updater, const QString& name)
{
    bool raised = false;
    if (name == QLatin1String("timeout")) {
        raised = QMetaObject::invokeMethod(const_cast<QTimer*>(CheckTimerOf(updater)), "timeout",
                                           Qt::DirectConnection);
    } else if (name == QLatin1String("error")) {
        Q_EMIT updater.error(1, QStringLiteral("text"));
        raised = true;
    } else {
        raised = QMetaObject::invokeMethod(&updater, qPrintable(name), Qt::DirectConnection);
    }
    if (!raised)
        qFatal("no signal %s", qPrintable(name));
}

QStringList WayTo(const QString& state)
{
    static const QHash<QString, QPair<QString, QString>> before{
        {"CANCELED", {"WAITING", "cancel"}},
        {"QUERYING", {"WAITING", "check"}},
        {"FAILED", {"QUERYING", "error"}},
        {"SCANNING", {"QUERYING", "packageReady"}},
        {"AVAILABLE", {"SCANNING", "packageChanged"}},
        {"ACTUAL", {"SCANNING", "packageActual"}},
        {"COPYING", {"AVAILABLE", "download"}},
        {"DOWNLOADING", {"COPYING", "copyingComplete"}},
        {"CREATINGSYMLINKS", {"DOWNLOADING", "downloadingComplete"}},
        {"VERIFICATION", {"CREATINGSYMLINKS", "creatingSymlinksComplete"}},
        {"SUCCESS", {"VERIFICATION", "verificationComplete"}},
        {"APPCALLBACK", {"WAITING", "install"}},
        {"BACKUPREMOVING", {"APPCALLBACK", "appcallbackComplete"}},
        {"BACKUPING", {"BACKUPREMOVING", "backupRemovingComplete"}},
        {"MOVING", {"BACKUPING", "backupingComplete"}},
        {"BACKUPCLEARING", {"MOVING", "movingComplete"}},
        {"REVERTING", {"MOVING", "error"}},
        {"RESTORING", {"REVERTING", "revertingComplete"}},
    };
    QStringList way;
    for (QString at = state; before.contains(at); at = before.value(at).first)
        way.prepend(before.value(at).second);
    return way;
}

bool GoTo(updater::Updater& updater, const Journal& journal, const QString& state)
{
    const bool waits =
        QTest::qWaitFor([&] { return journal.State() == QLatin1String("WAITING"); }, 30000);
    if (!waits)
        return false;
    for (const QString& signal : WayTo(state))
        Raise(updater, signal);
    return journal.State() == state;
}

} // namespace kxtest
