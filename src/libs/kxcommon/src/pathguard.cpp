#include <kxcommon/pathguard.h>

#include <QDir>
#include <QFileInfo>
#include <QStringList>

namespace common {
namespace {

bool IsLetter(QChar c)
{
    return (c >= QLatin1Char('a') && c <= QLatin1Char('z')) ||
           (c >= QLatin1Char('A') && c <= QLatin1Char('Z'));
}

bool IsControl(QChar c)
{
    return c < QChar(0x20) || (c >= QChar(0x7f) && c < QChar(0xa0));
}

// Where the backslash separates directories, a colon names a drive or a stream of a file.
bool ColonIsSpecial()
{
    return QDir::separator() == QLatin1Char('\\');
}

} // namespace

QString PathGuard::NameViolation(const QString& name)
{
    if (name.isEmpty())
        return QStringLiteral("the name is empty");
    if (name.startsWith(QLatin1Char('/')))
        return QStringLiteral("the name is absolute");
    if (name.size() > 1 && name.at(1) == QLatin1Char(':') && IsLetter(name.at(0)))
        return QStringLiteral("the name begins with a drive letter");
    if (ColonIsSpecial() && name.contains(QLatin1Char(':')))
        return QStringLiteral("the name has a colon");
    if (name.contains(QLatin1Char('\\')))
        return QStringLiteral("the name has a backslash");
    for (const QChar c : name) {
        if (IsControl(c))
            return QStringLiteral("the name has a control character");
    }
    if (name.endsWith(QLatin1Char('/')))
        return QStringLiteral("the name ends in a separator");
    const QStringList components = name.split(QLatin1Char('/'));
    if (components.contains(QLatin1String("..")))
        return QStringLiteral("the name leads out of its directory");
    if (components.contains(QLatin1String(".")))
        return QStringLiteral("the name has a component that is a single dot");
    return {};
}

QString PathGuard::Violation(const QString& root, const QString& name)
{
    const QString violation = NameViolation(name);
    if (!violation.isEmpty())
        return violation;
    QString path = root;
    const QStringList directories = name.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    for (qsizetype i = 0; i + 1 < directories.size(); ++i) {
        path += QLatin1Char('/') + directories.at(i);
        const QFileInfo info(path);
        if (info.isSymLink())
            return QStringLiteral("'%1' is a symbolic link").arg(path);
        if (!info.exists())
            return {};
        if (!info.isDir())
            return QStringLiteral("'%1' is not a directory").arg(path);
    }
    return {};
}

} // namespace common
