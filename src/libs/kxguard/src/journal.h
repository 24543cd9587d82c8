#pragma once

#include "treeinventory.h"

#include <QList>
#include <QString>

namespace guard {

/**
 * What an install that is under way leaves beside the application, for whoever finds it
 * interrupted: which directories it was about, and what the new version consists of. A text file:
 *
 *     kxjournal 1
 *     application IDENTITY
 *     file SIZE NAME
 *     link NAME
 *     end COUNT DIGEST
 *
 * with a line for each entry of the new version; DIGEST is the SHA-256 of the lines above. It is on
 * disk before the swap begins.
 */
struct Journal
{
    QString application; //!< identity of the old version's directory, see IdentityOf()
    QList<InventoryEntry> entries;

    QByteArray Text() const;
    /** False for anything that Text() does not write; `journal` is empty then. */
    static bool Parse(const QByteArray& text, Journal* journal);

    /** ".NAME.kxjournal" beside the application. */
    static QString PathFor(const QString& appDir);
    /** Reads the journal of `appDir`; false when there is none, or none that can be read and that
     *  only those may have written who may change the application. */
    static bool Read(const QString& appDir, Journal* journal);

    /** How a tree compares with the new version. */
    enum class Match {
        Complete, //!< everything is there, perhaps with more
        Part,     //!< something is missing, and there is nothing else
        Other     //!< something is missing, and something else is there
    };
    Match Compare(const QList<InventoryEntry>& tree) const;
    /** Whether nothing of the new version is missing, though it may have another size or kind. */
    bool HasAllNames(const QList<InventoryEntry>& tree) const;
};

} // namespace guard
