#pragma once

#include "platform.h"
#include "problems.h"

#include <QHash>
#include <QMap>
#include <QSet>
#include <QString>

namespace publish {

/** What a tree holds, by path relative to its root. */
struct TreeContents
{
    QMap<QString, int> files;     //!< permission bits of each regular file
    QMap<QString, QString> links; //!< target text of each link
    QSet<QString> directories;
};

/**
 * Lists a tree with the eyes of a client: what a client could never fetch, make or verify is a
 * problem that names the entry and the reason. Clients skip hidden entries in silence; here each
 * one is a problem, so that nothing that was meant to be published is missing unnoticed.
 */
class TreeCheck
{
public:
    /**
     * `baseUrl` is where clients will find the files, `filesPath` where they will stand on the
     * server's disk. `problems` is not owned.
     */
    TreeCheck(const QString& root, const QString& baseUrl, const QString& filesPath,
              Problems* problems);

    /** Lists the tree and collects its problems. */
    void Run();
    /** Complete only when there are no problems. */
    const TreeContents& Contents() const;

private:
    void CheckDirectory(const QString& directory, bool nameIsGood);
    void CheckEntry(const TreeEntry& entry, const QString& directory, bool nameIsGood);
    void CheckSiblings(const QList<TreeEntry>& entries, const QString& directory);
    void CheckFile(const TreeEntry& entry, const QString& name);
    void CheckLink(const TreeEntry& entry, const QString& name);
    bool CheckName(const TreeEntry& entry, const QString& directory, bool nameIsGood);

    QString root;
    QString baseUrl;
    QString filesPath;
    Problems* problems;
    TreeContents contents;
};

/** Path of the entry `name` of `directory`; the root's path is empty. */
QString JoinPath(const QString& directory, const QString& name);

} // namespace publish
