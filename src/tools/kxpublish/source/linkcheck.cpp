#include "linkcheck.h"

#include "output/console.h"
#include "treecheck.h"

#include <QDir>
#include <QStringList>

namespace publish {
namespace {

enum class Destination { Inside, Outside, Missing, LeftOut, Circle };

// As many as Linux follows in one path.
constexpr int maxLinks = 40;

QStringList Components(const QString& path)
{
    return path.split(QLatin1Char('/'), Qt::SkipEmptyParts);
}

QString DirectoryOf(const QString& name)
{
    const qsizetype slash = name.lastIndexOf(QLatin1Char('/'));
    return slash < 0 ? QString() : name.left(slash);
}

// Follows the link as the system would, on the names of the tree instead of the disk.
Destination Follow(const TreeContents& contents, const QString& link, QString& rule)
{
    QStringList place = Components(DirectoryOf(link));
    QStringList ahead = Components(contents.links.value(link));
    int followed = 1;
    bool missing = false;
    while (!ahead.isEmpty()) {
        const QString component = ahead.takeFirst();
        if (component == QLatin1String("."))
            continue;
        if (component == QLatin1String("..")) {
            if (place.isEmpty())
                return Destination::Outside;
            place.removeLast();
            continue;
        }
        place.append(component);
        const QString path = place.join(QLatin1Char('/'));
        const auto next = contents.links.constFind(path);
        if (next != contents.links.constEnd()) {
            if (QDir::isAbsolutePath(next.value()))
                return Destination::Outside;
            if (++followed > maxLinks)
                return Destination::Circle;
            place.removeLast();
            ahead = Components(next.value()) + ahead;
        } else if (contents.leftOut.contains(path)) {
            rule = contents.leftOut.value(path);
        } else if (!contents.directories.contains(path)) {
            missing = missing || !ahead.isEmpty() || !contents.files.contains(path);
        }
    }
    if (!rule.isEmpty())
        return Destination::LeftOut;
    return missing ? Destination::Missing : Destination::Inside;
}

// The target as a scan reports it: made absolute without looking at the disk, and relative again.
QString VerifiedTarget(const QString& link, const QString& target)
{
    const QString directory = JoinPath(QStringLiteral("/tree"), DirectoryOf(link));
    const QString absolute = QDir::cleanPath(directory + QLatin1Char('/') + target);
    return QDir(QDir::cleanPath(directory)).relativeFilePath(absolute);
}

} // namespace

void CheckLinks(const TreeContents& contents, Problems* problems)
{
    for (auto link = contents.links.begin(); link != contents.links.end(); ++link) {
        const QString& name = link.key();
        const QString& target = link.value();
        if (QDir::isAbsolutePath(target)) {
            problems->Refuse(
                Shown(name),
                QStringLiteral("the target %1 of the link is absolute").arg(Shown(target)));
            continue;
        }
        QString rule;
        const Destination destination = Follow(contents, name, rule);
        if (destination == Destination::Outside) {
            problems->Refuse(Shown(name),
                             QStringLiteral("the target %1 of the link leads out of the tree")
                                 .arg(Shown(target)));
            continue;
        }
        const QString verified = VerifiedTarget(name, target);
        if (verified != target) {
            problems->Refuse(Shown(name),
                             QStringLiteral("the target %1 of the link is not in the form that "
                                            "clients verify, %2")
                                 .arg(Shown(target), Shown(verified)));
            continue;
        }
        if (destination == Destination::LeftOut)
            problems->Refuse(Shown(name),
                             QStringLiteral("the target %1 of the link is left out by %2")
                                 .arg(Shown(target), rule));
        else if (destination == Destination::Missing)
            problems->Warn(
                Shown(name),
                QStringLiteral("the target %1 of the link does not exist").arg(Shown(target)));
        else if (destination == Destination::Circle)
            problems->Warn(Shown(name), QStringLiteral("the link leads in a circle"));
    }
}

} // namespace publish
