#pragma once

#include "glob.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <vector>

namespace publish {

/** One line that says what is left out, or taken in again. */
struct IgnoreRule
{
    QByteArray text; //!< as it was written
    QString source;  //!< file that holds it, relative to the tree; empty for --exclude
    int line = 0;    //!< in the file, from 1
    bool takesIn = false;
    bool directoriesOnly = false;
    bool namesOnly = false; //!< the last component is matched, not the path
    QByteArray directory;   //!< the rule holds below it; empty for the whole tree
    Glob glob;
    mutable bool used = false; //!< it has decided on an entry

    /** Where it stands and what it says, for messages. */
    QString Shown() const;
};

/**
 * What is to be left out of a tree, by the rules of gitignore(5): of the rules that match an entry
 * the last one decides, those of deeper directories stand behind the others, and what is in a
 * directory that is left out is never asked for. Paths and patterns are bytes, as with git.
 *
 * The walk that asks keeps the rules like a stack: it adds those of a directory when it enters it,
 * and drops them with Restore() when it leaves.
 */
class IgnoreRules
{
public:
    /**
     * Adds the lines of `text`, which is the file `source` in `directory`. A line that can never
     * match becomes a text in `doubts`.
     */
    void AddFile(const QByteArray& directory, const QString& source, const QByteArray& text,
                 QStringList& doubts);
    /** Adds a pattern of the command line; answers why it cannot be one, empty when it can. */
    QString AddOption(const QByteArray& pattern);

    size_t Mark() const;
    void Restore(size_t mark);

    /** The rule that leaves out the entry at `path`, null when it stays. */
    const IgnoreRule* Match(const QByteArray& path, bool isDirectory) const;

    /** Patterns of the command line that have decided on no entry. */
    QList<QByteArray> UnusedOptions() const;

private:
    bool AddLine(QByteArray line, IgnoreRule rule);

    std::vector<IgnoreRule> rules;
};

} // namespace publish
