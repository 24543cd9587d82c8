#pragma once

#include <QByteArrayView>
#include <QList>
#include <QString>

#include <functional>
#include <memory>

namespace guard {

enum class EntryKind { Missing, File, Directory, Link, Special };

struct TreeEntry
{
    QString name;
    EntryKind kind = EntryKind::Missing;
    bool isText = true; //!< false: the system's name has no form as text, `name` is for messages
};

/**
 * A directory of a tree that others may change meanwhile: entries are reached through the open
 * directory and never through links, and nothing but a regular file is opened for reading. Names
 * are single components unless said otherwise. Functions that return a text return the reason of a
 * failure, empty for success. One implementation per platform.
 */
class TreeDirectory
{
public:
    TreeDirectory();
    ~TreeDirectory();

    /** Opens `path`, links followed. */
    QString Open(const QString& path);
    /** Opens the directory `name`, "/" between components, below the open directory `root`; a link
     *  on the way is a failure. The empty name is `root` itself. */
    QString OpenBelow(const TreeDirectory& root, const QString& name);

    /** Entries in the order of the system. */
    QString List(QList<TreeEntry>* entries) const;
    /** What stands at `name`, which may be nothing; `size` in bytes, of a regular file. */
    QString Look(const QString& name, EntryKind* kind, quint64* size) const;
    /** `isText` is set to false when the target has no form as text. */
    QString ReadLink(const QString& name, QString* target, bool* isText) const;

    using Take = std::function<void(QByteArrayView block)>;
    /** Passes the content of a regular file on; one that has more than `limit` bytes, or grows
     *  while it is read, is a failure. A pipe is never waited for. */
    QString Read(const QString& name, quint64 limit, const Take& take) const;

private:
    Q_DISABLE_COPY(TreeDirectory)

    struct Handle;
    std::unique_ptr<Handle> handle;
};

} // namespace guard
