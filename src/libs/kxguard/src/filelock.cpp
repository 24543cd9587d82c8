#include <kxguard/filelock.h>

#include "filelock_handle.h"
#include "ownership.h"

#include <kxcommon/durablefiles.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFileInfo>
#include <QThread>

namespace guard {
namespace {

// Asking for the owner holds a free lock for a moment: a few tries tell that from a real owner.
constexpr int leastTries = 3;
constexpr unsigned long triesPauseMs = 20;

QByteArray OwnText()
{
    return QByteArray::number(QCoreApplication::applicationPid()) + '\n' +
           QFileInfo(QCoreApplication::applicationFilePath()).fileName().toUtf8() + '\n';
}

FileLock::Owner ReadOwner(const QByteArray& text)
{
    const QList<QByteArray> lines = text.split('\n');
    FileLock::Owner owner;
    bool isNumber = false;
    owner.process = lines.value(0).toLongLong(&isNumber);
    if (!isNumber || owner.process <= 0)
        owner.process = -1;
    owner.program = QString::fromUtf8(lines.value(1)).left(100);
    return owner;
}

QString OwnerText(const FileLock::Owner& owner)
{
    if (owner.process <= 0)
        return QStringLiteral("another process");
    if (owner.program.isEmpty())
        return QStringLiteral("process %1").arg(owner.process);
    return QStringLiteral("%1 (process %2)").arg(owner.program).arg(owner.process);
}

} // namespace

FileLock::FileLock(const QString& path) : path(path), handle(std::make_unique<Handle>()) {}

FileLock::~FileLock()
{
    Release();
}

FileLock::Result FileLock::Take(int waitMs)
{
    if (IsHeld())
        return Result::Taken;
    Release();
    const QDeadlineTimer deadline(waitMs);
    QByteArray holder;
    for (int tries = 1;; ++tries) {
        const Result result = handle->Take(path, OwnText(), &holder, &reason);
        if (result == Result::Taken) {
            reason.clear();
            GiveToOwnerOfDirectory(path);
        }
        if (result != Result::Busy)
            return result;
        if (tries >= leastTries && deadline.hasExpired())
            break;
        QThread::msleep(triesPauseMs);
    }
    reason = QStringLiteral("The lock '%1' is held by %2.").arg(path, OwnerText(ReadOwner(holder)));
    return Result::Busy;
}

void FileLock::Release()
{
    handle->Release(path);
}

bool FileLock::IsHeld() const
{
    return handle->IsHeld(path);
}

FileLock::Owner FileLock::OwnerOf(const QString& path)
{
    QByteArray holder;
    return Handle::IsLocked(path, &holder) ? ReadOwner(holder) : Owner();
}

QString ApplicationLockPath(const QString& appDir)
{
    return common::DurableFiles::HiddenSibling(appDir, QStringLiteral(".kxlock"));
}

} // namespace guard
