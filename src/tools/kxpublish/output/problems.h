#pragma once

#include <QString>
#include <QStringList>

namespace publish {

/**
 * What speaks against a request: problems refuse it, warnings do not. They are collected, so that
 * the user sees all of them at once.
 */
class Problems
{
public:
    /** `subject` is what the problem is about, as Shown() gives it. */
    void Refuse(const QString& subject, const QString& reason);
    void Warn(const QString& subject, const QString& reason);
    /** A whole message, subject and reason. */
    void Warn(const QString& text);

    /** Takes over the problems of `other`, not its warnings. */
    void AddProblems(const Problems& other);

    bool IsEmpty() const;
    /** Problems and warnings as "SUBJECT: REASON", in the order in which they were found. */
    const QStringList& Refusals() const { return problems; }
    const QStringList& Warnings() const { return warnings; }
    /** Messages for all warnings, which are then forgotten. */
    void PrintWarnings();
    /** Messages for the first hundred problems, and how many there are. */
    void Print() const;

private:
    QStringList problems;
    QStringList warnings;
};

} // namespace publish
