#include "problems.h"

#include "console.h"

namespace publish {

static constexpr qsizetype maxPrinted = 100;

void Problems::Refuse(const QString& subject, const QString& reason)
{
    problems.append(subject + QStringLiteral(": ") + reason);
}

void Problems::Warn(const QString& subject, const QString& reason)
{
    Warn(subject + QStringLiteral(": ") + reason);
}

void Problems::Warn(const QString& text)
{
    warnings.append(text);
}

void Problems::AddProblems(const Problems& other)
{
    problems += other.problems;
}

bool Problems::IsEmpty() const
{
    return problems.isEmpty();
}

void Problems::PrintWarnings()
{
    for (const QString& warning : std::as_const(warnings))
        publish::Warn(warning);
    warnings.clear();
}

void Problems::Print() const
{
    for (const QString& problem : problems.mid(0, maxPrinted))
        Complain(problem);
    if (problems.size() > maxPrinted)
        Complain(QStringLiteral("... and %1 more").arg(problems.size() - maxPrinted));
    Complain(problems.size() == 1 ? QStringLiteral("refused, 1 problem")
                                  : QStringLiteral("refused, %1 problems").arg(problems.size()));
}

} // namespace publish
