#include "history.h"

#include "output/console.h"
#include "output/problems.h"
#include "publishedbuild.h"
#include "source/names.h"
#include "source/platform.h"
#include "versionorder.h"

#include <kxcommon/version.h>

#include <QFile>
#include <QFileInfo>

#include <algorithm>

namespace publish {
namespace {

constexpr qint64 maxSize = 1024 * 1024;
constexpr qsizetype maxVersions = 1000;

QString RollbackWord()
{
    return QStringLiteral("rollback");
}

bool IsLater(const QString& a, const QString& b)
{
    return common::Version(a) > common::Version(b);
}

bool ReadText(const QString& path, QByteArray& text, QString& problem)
{
    QFile file;
    int mode = 0;
    QString error;
    if (!OpenRegularFile(file, path, mode, error)) {
        problem = QStringLiteral("cannot be read: ") + error;
        return false;
    }
    if (file.size() > maxSize) {
        problem = QStringLiteral("is too large");
        return false;
    }
    text = file.readAll();
    return true;
}

// An empty text when the lines are a history.
QString Parse(const QByteArray& text, QStringList& versions, QStringList& rollback)
{
    if (!text.isEmpty() && !text.endsWith('\n'))
        return QStringLiteral("is cut short");
    QList<QByteArray> lines = text.split('\n');
    lines.removeLast();
    for (qsizetype i = 0; i < lines.size(); ++i) {
        const QString line = QString::fromUtf8(lines.at(i));
        const QStringList words = line.split(QLatin1Char(' '));
        if (i == lines.size() - 1 && words.size() == 3 && words.at(0) == RollbackWord() &&
            VersionProblem(words.at(1)).isEmpty() && VersionProblem(words.at(2)).isEmpty())
            rollback = words.mid(1);
        else if (VersionProblem(line).isEmpty())
            versions.append(line);
        else
            return QStringLiteral("line %1 is not a version: ").arg(i + 1) + Shown(line);
    }
    return {};
}

QStringList EarlierVersions(const ServerTree& server, const QString& offered)
{
    QStringList versions;
    for (const Build& build : server.Builds()) {
        if (IsLater(offered, build.version) && !versions.contains(build.version))
            versions.append(build.version);
    }
    std::sort(versions.begin(), versions.end(), IsListedBefore);
    return versions;
}

} // namespace

History ReadHistory(const ServerTree& server, const QString& offered)
{
    History history;
    const QFileInfo info(server.HistoryPath());
    if (!info.exists() && !info.isSymLink())
        return history;
    QByteArray text;
    if (!ReadText(server.HistoryPath(), text, history.problem))
        return history;
    QStringList versions;
    QStringList rollback;
    history.problem = Parse(text, versions, rollback);
    if (!history.problem.isEmpty())
        return history;
    history.known = true;
    history.versions = versions;
    history.underWay = !rollback.isEmpty();
    if (!rollback.isEmpty() && rollback.at(1) == offered) {
        history.unfinishedTarget = rollback.at(0);
        history.unfinishedVersion = rollback.at(1);
        history.GoBackTo(history.unfinishedTarget);
    }
    return history;
}

void History::Promote(const QString& before, const QString& version)
{
    known = true;
    if (!before.isEmpty() && before != version && versions.value(versions.size() - 1) != before)
        versions.append(before);
    // Offering an earlier version is going back, too: what came after it is not to be offered by a
    // later rollback.
    const auto leaves = [&version](const QString& each) {
        return each == version || IsLater(each, version);
    };
    versions.erase(std::remove_if(versions.begin(), versions.end(), leaves), versions.end());
    if (versions.size() > maxVersions)
        versions.remove(0, versions.size() - maxVersions);
}

void History::GoBackTo(const QString& target)
{
    const qsizetype place = versions.lastIndexOf(target);
    if (place >= 0)
        versions.remove(place, versions.size() - place);
}

QByteArray History::ToText() const
{
    QByteArray text;
    for (const QString& version : versions)
        text += version.toUtf8() + '\n';
    return text;
}

QByteArray RollbackText(const History& history, const QString& target, const QString& version)
{
    const QStringList words = {RollbackWord(), target, version};
    return history.ToText() + words.join(QLatin1Char(' ')).toUtf8() + '\n';
}

RollbackChoice ChooseRollback(const ServerTree& server, History& history, const QString& offered)
{
    if (!history.known) {
        history.known = true;
        history.versions = EarlierVersions(server, offered);
    }
    RollbackChoice choice;
    for (qsizetype i = history.versions.size(); i-- > 0;) {
        const QString& candidate = history.versions.at(i);
        // The one on offer is on top when a run was killed right before it offered the next.
        if (candidate == offered || IsLater(candidate, offered))
            continue;
        Problems problems;
        CheckPromotable(server, candidate, &problems);
        if (problems.IsEmpty()) {
            choice.target = candidate;
            return choice;
        }
        choice.skipped.append(QStringLiteral("%1 is passed over: ").arg(candidate) +
                              problems.Refusals().constFirst());
    }
    return choice;
}

} // namespace publish
