#include "names.h"

#include <kxcommon/pathguard.h>
#include <kxcommon/version.h>

#include <QRegularExpression>
#include <QStringList>
#include <QUrl>

#include <algorithm>

namespace publish {
namespace {

bool Matches(const char* pattern, const QString& text)
{
    const QRegularExpression expression(
        QRegularExpression::anchoredPattern(QLatin1String(pattern)));
    return expression.match(text).hasMatch();
}

QString SegmentProblem(const QString& text)
{
    if (text.isEmpty())
        return QStringLiteral("is empty");
    if (!Matches("[A-Za-z0-9._+~-]*", text))
        return QStringLiteral("may only have letters of ASCII, digits and ._+~-");
    if (text.startsWith(QLatin1Char('.')) || text.startsWith(QLatin1Char('-')))
        return QStringLiteral("begins with '%1'").arg(text.at(0));
    if (text.size() > 100)
        return QStringLiteral("is longer than 100 characters");
    return {};
}

// XML 1.0 has no way to write these, not even escaped.
bool IsXmlCharacter(char32_t c)
{
    return c == 0x9 || c == 0xa || c == 0xd || (c >= 0x20 && c <= 0xd7ff) ||
           (c >= 0xe000 && c <= 0xfffd) || (c >= 0x10000 && c <= 0x10ffff);
}

bool IsXmlText(const QString& text)
{
    const QList<uint> characters = text.toUcs4();
    return std::all_of(characters.begin(), characters.end(), IsXmlCharacter);
}

bool IsPlain(QChar c)
{
    const char16_t u = c.unicode();
    const char16_t letter = u | 0x20;
    return (letter >= 'a' && letter <= 'z') || (u >= '0' && u <= '9') || u == '.' || u == '_' ||
           u == '-' || u == '/';
}

// What a client asks for has to be what the server holds, as text and as bytes of a request.
bool SurvivesUrl(const QString& path, const QString& baseUrl)
{
    const QString expected = QUrl(baseUrl, QUrl::TolerantMode).path() + QLatin1Char('/') + path;
    const QUrl url(baseUrl + QLatin1Char('/') + path, QUrl::TolerantMode);
    return url.isValid() && url.path() == expected && !url.hasQuery() && !url.hasFragment() &&
           QUrl::fromEncoded(url.toEncoded(), QUrl::StrictMode).path() == expected;
}

} // namespace

QString PackageProblem(const QString& package)
{
    return SegmentProblem(package);
}

QString VersionProblem(const QString& version)
{
    const QString problem = SegmentProblem(version);
    if (!problem.isEmpty())
        return problem;
    if (version.contains(QLatin1String("-v")))
        return QStringLiteral("has '-v', which separates package and version on the server");
    if (version.endsWith(QLatin1Char('.')))
        return QStringLiteral("ends with '.'");
    return {};
}

QString PlatformProblem(const QString& platform)
{
    if (platform == QLatin1String("x64") || platform == QLatin1String("x86"))
        return {};
    return QStringLiteral("is neither 'x64' nor 'x86'");
}

QString BaseUrlProblem(const QString& text)
{
    const QUrl url(text, QUrl::StrictMode);
    // "host:port" alone is not valid either, and wants the same advice as "host".
    if (!url.isValid() && (text.isEmpty() || text.contains(QLatin1String("://"))))
        return QStringLiteral("is not a valid URL");
    if (url.scheme() != QLatin1String("http") && url.scheme() != QLatin1String("https"))
        return QStringLiteral("does not begin with http:// or https://");
    if (url.host().isEmpty())
        return QStringLiteral("has no host");
    if (!url.userInfo().isEmpty() || url.authority().contains(QLatin1Char('@')))
        return QStringLiteral("has credentials, which every client would see");
    if (url.hasQuery())
        return QStringLiteral("has a query");
    if (url.hasFragment())
        return QStringLiteral("has a fragment");
    if (!SurvivesUrl(QStringLiteral("packages"), text))
        return QStringLiteral("is not read the same by every client");
    return {};
}

bool IsNumbered(const QString& version)
{
    // A text that has no numbers is never later than another one of its kind.
    return common::Version(version) > common::Version(QString());
}

QString PathProblem(const QString& path, const QString& baseUrl)
{
    const QString violation = common::PathGuard::NameViolation(path);
    if (!violation.isEmpty())
        return violation;
    const QStringList components = path.split(QLatin1Char('/'));
    for (const QString& component : components) {
        if (component.isEmpty())
            return QStringLiteral("the name has an empty component");
        if (component.at(0).isSpace())
            return QStringLiteral("the name begins with a blank");
        if (component.back().isSpace())
            return QStringLiteral("the name ends with a blank");
    }
    for (const char c : {'#', '?', '%'}) {
        if (path.contains(QLatin1Char(c)))
            return QStringLiteral("the name has '%1', which does not survive in a URL")
                .arg(QLatin1Char(c));
    }
    // Most names by far need no closer look, which costs more than reading a small file.
    if (std::all_of(path.begin(), path.end(), IsPlain))
        return {};
    if (!IsXmlText(path))
        return QStringLiteral("the name has a character that XML cannot carry");
    if (!SurvivesUrl(path, baseUrl))
        return QStringLiteral("the name does not survive in a URL");
    return {};
}

QString TargetTextProblem(const QString& target)
{
    for (const QChar c : target) {
        if (c.category() == QChar::Other_Control)
            return QStringLiteral("the target of the link has a control character");
    }
    if (target.contains(QLatin1Char('\\')))
        return QStringLiteral("the target of the link has a backslash");
    if (!IsXmlText(target))
        return QStringLiteral("the target of the link has a character that XML cannot carry");
    return {};
}

} // namespace publish
