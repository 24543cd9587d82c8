#pragma once

#include "progresstext.h"

#include <QList>
#include <QString>
#include <QStringList>

namespace tools {

/** How one entry of a tree differs from what was expected. */
struct Difference
{
    QString kind; //!< "missing", "changed" or "unexpected"
    QString name;
};

/**
 * Everything that a tool has to say, in whatever form its user wants it. Texts may come from a
 * server; the forms see to it that no control character of them reaches a terminal. Safe from any
 * thread.
 */
class Console
{
public:
    Console() = default;
    virtual ~Console();

    /** What is going on; not said when the tool is to be quiet. */
    virtual void Message(const QString& text) = 0;
    /** What the user must know although it is no failure. */
    virtual void Warning(const QString& text) = 0;
    virtual void Error(const QString& text) = 0;
    /** A failure with its code and the next step; `hint` may be empty. */
    virtual void Failure(int code, const QString& text, const QString& hint) = 0;
    /** The work has entered the state `name`. */
    virtual void State(const QString& name, const QString& text) = 0;
    /** A datum that scripts read. */
    virtual void Data(const QString& name, const QString& value) = 0;
    /** What makes a tree wrong. */
    virtual void Differences(const QList<Difference>& differences) = 0;
    /** Files that will be gone. */
    virtual void Dropped(const QStringList& names) = 0;
    /** A line of a library's log. */
    virtual void Log(const QString& line) = 0;

    /** Shows how far the step has come. */
    virtual void Progress(const ProgressFigures& figures) = 0;
    void Progress(int percent, const QString& step);
    /** Takes the progress away; the next Progress() begins anew. */
    virtual void EndProgress() = 0;
    /** Begins a new line on a terminal, whose last one holds the "^C" of the user. */
    virtual void BreakLine() = 0;

    /** The last word of a command, and what the process will exit with. */
    virtual void Result(const QString& word, int exitStatus) = 0;

private:
    Q_DISABLE_COPY(Console)
};

} // namespace tools
