#pragma once

#include <kxupdater/file.h>

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

namespace kxbench {

/** Directory that holds the working directories of all cases; set once by main(). */
void SetBaseDirectory(const QString& path);

/** A working directory that goes with the object. Its name is a fresh one each time: file systems
 *  are slow to use again what was deleted a moment ago. */
class Workspace
{
public:
    Workspace();
    QString Path(const QString& name) const { return directory.filePath(name); }

private:
    QTemporaryDir directory;
};

/** Fills `root` with `count` files of `size` bytes, 100 to a directory. */
void MakeTree(const QString& root, qint64 count, qint64 size, quint32 seed = 1);

/** The root of such a tree that all cases share and none changes: made at the first call and
 * brought to disk, removed when the process ends. */
QString SharedTree(qint64 count, qint64 size);

/** Gives every `step`-th file of such a tree other content. */
void ChangeTree(const QString& root, qint64 count, qint64 size, qint64 step);

/** `count` records with random digests; the same ones for the same seed. */
updater::FileList MakeRecords(qint64 count, quint32 seed = 1);

/** Runs `program` to its end and fails the process when it does. */
void RunPeer(const QString& program, const QStringList& arguments);

/** Runs the local event loop until `sender` emits `done`; any signal of `failed` ends the process.
 */
void WaitFor(QObject* sender, const char* done, const char* failed);

} // namespace kxbench
