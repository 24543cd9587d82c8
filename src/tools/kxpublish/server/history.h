#pragma once

#include "servertree.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace publish {

/**
 * The versions that clients were offered before the present one: a stack, the latest last, one a
 * line. Going back takes versions off it and puts none on, so it never leads back to the version
 * that was left. A rollback writes first where it goes, as one more line "rollback TARGET VERSION",
 * so that a run that is killed in between is told from one that is still to come.
 */
struct History
{
    bool known = false; //!< false: there is no history, or none that can be used
    QString problem;    //!< why a history cannot be used; empty when there is none
    QStringList versions;
    bool underWay = false; //!< a rollback has begun and has not written its end
    /** A rollback to `target`, offered as `version`, reached the clients but not its own end. */
    QString unfinishedTarget;
    QString unfinishedVersion;

    /** Takes note that `version` is offered after `before`, which is empty for the first one. */
    void Promote(const QString& before, const QString& version);
    /** Takes `target` off, and what was offered after it. */
    void GoBackTo(const QString& target);

    QByteArray ToText() const;
};

/** The history of a tree that offers `offered` now. Never fails: what cannot be read as a history
 *  is as good as none. */
History ReadHistory(const ServerTree& server, const QString& offered);

/** Text of `history`, with the rollback to `target`, offered as `version`, as under way. */
QByteArray RollbackText(const History& history, const QString& target, const QString& version);

/** What a rollback would offer again. */
struct RollbackChoice
{
    QString target;      //!< empty when there is nothing to go back to
    QStringList skipped; //!< versions that were offered later, each with why it cannot be now
};

/**
 * The version to go back to from `offered`: the latest of the history that can still be offered.
 * Without a history the published versions that are earlier than `offered` become one.
 */
RollbackChoice ChooseRollback(const ServerTree& server, History& history, const QString& offered);

} // namespace publish
