#pragma once

#include <kxguard/filelock.h>

#include <QString>

/** Why `owner`, who works on the directory `subject`, is in the way. */
QString BusyText(const guard::FileLock::Owner& owner, const QString& subject);

/** `owner` as a datum: "free", or the process, and its program when that is another than this. */
QString OwnerWord(const guard::FileLock::Owner& owner);
