#pragma once

#include "treebuilder.h"

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

namespace kxtest {

/**
 * An installed application "app", a new version of it "next", complete and described, and a
 * bystander "outside", alone in the directory Root(), so that a snapshot of it shows everything
 * that an install or a recovery did.
 */
class GuardSite
{
public:
    GuardSite();

    QString Root() const { return directory.path() + QStringLiteral("/root"); }
    QString App() const { return Root() + QStringLiteral("/app"); }
    QString Next() const { return Root() + QStringLiteral("/next"); }
    QString Backup() const { return Root() + QStringLiteral("/app.old"); }
    QString Copy() const { return Root() + QStringLiteral("/.app.kxnew"); }
    QString Journal() const { return Root() + QStringLiteral("/.app.kxjournal"); }
    QString LockFile() const { return Root() + QStringLiteral("/.app.kxlock"); }
    QString Outside() const { return Root() + QStringLiteral("/outside"); }
    /** A scratch directory beside Root(). */
    QString Scratch(const QString& name) const;

    /** Removes what stands in Root(), and makes it again. */
    void Reset();
    /** Describes what the download directory holds now. */
    void Describe();
    QString Xml() const { return xml; }
    /** Xml() as a file. */
    QString XmlFile() const { return directory.path() + QStringLiteral("/index.xml"); }

    /** The trees as they were made. */
    const QStringList& OldTree() const { return oldTree; }
    const QStringList& NewTree() const { return newTree; }
    /** Names in Root(), hidden ones included. */
    QStringList Names() const;
    /** The new version stands, and nothing else is there but what belongs there. */
    bool IsNew() const;
    /** The old one. */
    bool IsOld() const;
    /** What stands in Root(), for messages. */
    QByteArray Report() const;

    static const QString package;
    static const QStringList plainNames; //!< what Names() are when nothing is left over

private:
    Q_DISABLE_COPY(GuardSite)

    QTemporaryDir directory;
    QString xml;
    QStringList oldTree;
    QStringList newTree;
};

/** Copies a tree as an administrator would: all entries, links as links. */
void CopyTree(const QString& from, const QString& to);

} // namespace kxtest
