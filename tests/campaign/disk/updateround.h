#pragma once

#include "disktrace.h"
#include "randomtree.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <initializer_list>

namespace campaign {

/**
 * Two versions of a seeded tree: the old one as it is installed, the new one on a web server. The
 * starting point can be laid out again and again, each time in a place of its own:
 *
 *     PLACE/opt/app        the application, with neighbours beside it that nobody may touch
 *     PLACE/cache/next     the download directory, missing at first
 *
 * Const operations may be called on several threads.
 */
class UpdateRound
{
public:
    /** `directory`: where the starting point is kept; `serverRoot` is served at `url`, and the new
     *  version is published below it. `entries`: size of the tree. */
    UpdateRound(const QString& directory, const QString& serverRoot, const QString& url,
                quint32 seed, int entries = 30);

    /** Removes `place`, and lays the starting point out there. */
    void Lay(const QString& place) const;

    static QString Parent(const QString& place) { return place + QStringLiteral("/opt"); }
    static QString App(const QString& place) { return place + QStringLiteral("/opt/app"); }
    static QString Next(const QString& place) { return place + QStringLiteral("/cache/next"); }

    /** Updates the application in `place`; watched is all of `place`. */
    TracedCommand Update(const QString& place) const;
    /** Recovers it, in a process of its own. */
    TracedCommand Recovering(const QString& place) const;
    /** The update with kxupdate in place of the small program. */
    TracedCommand UpdateWithTool(const QString& place) const;

    /** Snapshots of the application before and after a whole update. */
    const QStringList& Old() const { return oldLines; }
    const QStringList& New() const { return newLines; }

    enum class State { Old, New, Missing, Broken };
    /** New is also a tree in which a file has the published mode instead of the installed one: that
     *  of a file that was downloaded because the installed one could not be read. */
    State StateOf(const QString& place) const;
    /** What is wrong with an application that has to be whole, and with what is beside it; empty
     *  when nothing is. `allowed`: what it may be. */
    QString WholeProblem(const QString& place,
                         std::initializer_list<State> allowed = {State::Old, State::New}) const;
    /** What has happened to the neighbours, or stands beside the application that did not before;
     *  empty when nothing. `withLeftovers`: also the names that belong to an install. */
    QString NeighbourProblem(const QString& place, bool withLeftovers) const;

private:
    TracedCommand Command(const QString& place) const;

    QString start;
    QString baseUrl;
    QStringList oldLines;
    QStringList newLines;
    QStringList publishedLines;
    QStringList neighbours;
};

/** Copies a tree with modes and links; `to` must not exist. */
void CopyWhole(const QString& from, const QString& to);
/**
 * Copies a place. A journal knows the old version by the identity of its directory, which no copy
 * has: that in the copied journal becomes the one of the copied directory.
 */
void CopyPlace(const QString& from, const QString& to);
/** Puts the second identity of each pair where journals below `parent` have the first. */
void AdaptJournal(const QString& parent, const QList<QPair<QByteArray, QByteArray>>& identities);
/** guard::IdentityOf() */
QByteArray DirectoryIdentity(const QString& path);
/** The first lines in which two snapshots differ. */
QString Difference(const QStringList& is, const QStringList& wanted);
/** Runs a command that nothing is asked of. */
TracedEnd RunPlain(const TracedCommand& command);

} // namespace campaign
