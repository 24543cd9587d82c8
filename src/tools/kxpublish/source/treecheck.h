#pragma once

#include "ignorerules.h"
#include "output/problems.h"
#include "platform.h"

#include <QHash>
#include <QMap>
#include <QSet>
#include <QString>

namespace publish {

class ProgressMeter;

/** A regular file, as it was when the tree was listed. */
struct TreeFile
{
    FileStatus status;
    bool young = false; //!< status.IsYoung() at that time
};

/** What a tree holds, by path relative to its root. */
struct TreeContents
{
    QMap<QString, TreeFile> files;
    QMap<QString, QString> links; //!< target text of each link
    QSet<QString> directories;
    QMap<QString, QString> leftOut; //!< entries that are left out, with the rule; directories whole

    /** The rule that leaves out `path`, or a directory above it; empty when it is not left out. */
    QString LeftOutBy(const QString& path) const;
};

/**
 * Lists a tree with the eyes of a client: what a client could never fetch, make or verify is a
 * problem that names the entry and the reason. Clients skip hidden entries in silence; here each
 * one is a problem, so that nothing that was meant to be published is missing unnoticed. What rules
 * leave out is not looked at: those of the command line, and of the files ".kxpublishignore".
 */
class TreeCheck
{
public:
    /**
     * `baseUrl` is where clients will find the files, `filesPath` where they will stand on the
     * server's disk. `excludes` are rules behind those of the root. `problems` and `progress` are
     * not owned.
     */
    TreeCheck(const QString& root, const QString& baseUrl, const QString& filesPath,
              const QStringList& excludes, Problems* problems, ProgressMeter* progress);

    /** Lists the tree and collects its problems. */
    void Run();
    /** Name of the files that hold rules; they are left out themselves. */
    static QString RulesName();
    /** Complete only when there are no problems. */
    const TreeContents& Contents() const;

private:
    void CheckDirectory(const QString& directory, bool nameIsGood);
    void CheckEntry(const TreeEntry& entry, const QString& directory, bool nameIsGood);
    bool ReadRules(const QList<TreeEntry>& entries, const QString& directory);
    void AddExcludes();
    void LeaveOut(QList<TreeEntry>& entries, const QString& directory);
    void CheckSiblings(const QList<TreeEntry>& entries, const QString& directory);
    void CheckFile(const TreeEntry& entry, const QString& name);
    void CheckLink(const TreeEntry& entry, const QString& name);
    bool CheckName(const TreeEntry& entry, const QString& directory, bool nameIsGood);

    QString root;
    QString baseUrl;
    QString filesPath;
    QStringList excludes;
    Problems* problems;
    ProgressMeter* progress;
    IgnoreRules rules;
    TreeContents contents;
};

/** Path of the entry `name` of `directory`; the root's path is empty. */
QString JoinPath(const QString& directory, const QString& name);

} // namespace publish
