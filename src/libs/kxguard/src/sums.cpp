#include "strictcodec.h"
#include "treeshape.h"

#include <kxcommon/pathguard.h>
#include <kxguard/signedtree.h>

namespace guard {
namespace {

constexpr qsizetype largestList = 64 * 1024 * 1024;
constexpr qsizetype longestName = 4096;
constexpr qsizetype digestLength = 64;
const QByteArray linkStart = QByteArrayLiteral("# link ");
const QString arrow = QStringLiteral(" -> ");

Problem Malformed(qsizetype line, const QString& reason)
{
    return {SumsMalformed, QStringLiteral("line %1: %2").arg(line).arg(reason)};
}

QString FileViolation(const QString& name, const QByteArray& digest)
{
    if (!IsLowerHex(QString::fromLatin1(digest), digestLength))
        return QStringLiteral("the digest is not 64 lower-case hexadecimal digits");
    return Sums::NameViolation(name);
}

QString LinkViolation(const QString& name, const QString& target)
{
    const QString violation = Sums::NameViolation(name);
    return violation.isEmpty() ? Sums::TargetViolation(target) : violation;
}

// Adds to the end of `entries` and refuses what is not sorted: two equal names included.
template <typename Value>
QString Append(QMap<QString, Value>& entries, const QString& name, const Value& value)
{
    if (!entries.isEmpty() && !(entries.lastKey() < name))
        return QStringLiteral("%1 is not in its place: names are sorted, and come once")
            .arg(Quoted(name));
    entries.insert(entries.cend(), name, value);
    return {};
}

// The reason why `line` cannot be the next one of the list.
QString ReadLine(const QByteArray& line, Sums& sums)
{
    const bool isLink = line.startsWith(linkStart);
    QString text;
    if (!DecodeUtf8(line.mid(isLink ? linkStart.size() : digestLength), &text))
        return QStringLiteral("it is not in UTF-8");
    QString violation;
    if (isLink) {
        const qsizetype end = text.indexOf(arrow);
        if (end < 0)
            return QStringLiteral("it is not '# link NAME -> TARGET'");
        const QString name = text.left(end);
        const QString target = text.mid(end + arrow.size());
        violation = LinkViolation(name, target);
        return violation.isEmpty() ? Append(sums.links, name, target) : violation;
    }
    if (!sums.links.isEmpty())
        return QStringLiteral("a file comes after the links");
    if (!text.startsWith(QLatin1String("  ")))
        return QStringLiteral("it is neither 'DIGEST  NAME' nor '# link NAME -> TARGET'");
    const QByteArray digest = line.left(digestLength);
    const QString name = text.mid(2);
    violation = FileViolation(name, digest);
    return violation.isEmpty() ? Append(sums.files, name, digest) : violation;
}

} // namespace

QString SumsName()
{
    return QStringLiteral("SHA256SUMS");
}

QString SignatureName()
{
    return QStringLiteral("SHA256SUMS.minisig");
}

QByteArray Sums::Text() const
{
    if (!Violation().isEmpty())
        return {};
    QByteArray text;
    for (auto file = files.cbegin(); file != files.cend(); ++file)
        text += file.value() + "  " + file.key().toUtf8() + '\n';
    for (auto link = links.cbegin(); link != links.cend(); ++link)
        text += linkStart + link.key().toUtf8() + arrow.toLatin1() + link.value().toUtf8() + '\n';
    return text;
}

QString Sums::Violation() const
{
    if (files.isEmpty() && links.isEmpty())
        return QStringLiteral("there is no entry");
    for (auto file = files.cbegin(); file != files.cend(); ++file) {
        const QString violation = FileViolation(file.key(), file.value());
        if (!violation.isEmpty())
            return Quoted(file.key()) + QStringLiteral(": ") + violation;
    }
    for (auto link = links.cbegin(); link != links.cend(); ++link) {
        const QString violation = LinkViolation(link.key(), link.value());
        if (!violation.isEmpty())
            return Quoted(link.key()) + QStringLiteral(": ") + violation;
    }
    return ShapeViolation(files.keys() + links.keys());
}

Problem Sums::Parse(const QByteArray& text, Sums* sums)
{
    if (text.size() > largestList)
        return {SumsMalformed, QStringLiteral("it is larger than %1 bytes").arg(largestList)};
    if (text.isEmpty())
        return {SumsMalformed, QStringLiteral("it is empty")};
    Sums read;
    qsizetype number = 1;
    for (qsizetype begin = 0; begin < text.size(); ++number) {
        const qsizetype end = text.indexOf('\n', begin);
        if (end < 0)
            return Malformed(number, QStringLiteral("it has no end"));
        const QString violation = ReadLine(text.mid(begin, end - begin), read);
        if (!violation.isEmpty())
            return Malformed(number, violation);
        begin = end + 1;
    }
    const QString violation = ShapeViolation(read.files.keys() + read.links.keys());
    if (!violation.isEmpty())
        return {SumsMalformed, violation};
    *sums = read;
    return {};
}

QString Sums::NameViolation(const QString& name)
{
    if (name.size() > longestName)
        return QStringLiteral("the name is longer than %1 characters").arg(longestName);
    const QString violation = common::PathGuard::NameViolation(name);
    if (!violation.isEmpty())
        return violation;
    if (HasLoneSurrogate(name))
        return QStringLiteral("the name is not a text of Unicode");
    if (name.contains(QLatin1String("//")))
        return QStringLiteral("the name has an empty component");
    // The arrow at the end would begin the one that follows the name.
    if (name.contains(arrow) || name.endsWith(QLatin1String(" ->")))
        return QStringLiteral("the name has ' -> ', which separates a link from its target");
    if (name == QLatin1String("-"))
        return QStringLiteral("the name '-' means the standard input to sha256sum");
    if (name == SumsName() || name == SignatureName())
        return QStringLiteral("the name is that of a file of the signature");
    return {};
}

QString Sums::TargetViolation(const QString& target)
{
    if (target.isEmpty())
        return QStringLiteral("the target is empty");
    if (target.size() > longestName)
        return QStringLiteral("the target is longer than %1 characters").arg(longestName);
    if (HasControl(target))
        return QStringLiteral("the target has a control character");
    if (HasLoneSurrogate(target))
        return QStringLiteral("the target is not a text of Unicode");
    if (target.contains(QLatin1Char('\\')))
        return QStringLiteral("the target has a backslash");
    if (target.contains(arrow))
        return QStringLiteral("the target has ' -> ', which separates a link from its target");
    return {};
}

} // namespace guard
