#include <kxcommon/version.h>

#include <algorithm>

namespace common {
namespace {

bool IsDigit(QChar c)
{
    return c >= QLatin1Char('0') && c <= QLatin1Char('9');
}

bool IsNumber(const QString& text)
{
    return !text.isEmpty() && std::all_of(text.cbegin(), text.cend(), IsDigit);
}

QString WithoutLeadingZeros(const QString& digits)
{
    qsizetype zeros = 0;
    while (zeros < digits.size() && digits.at(zeros) == QLatin1Char('0'))
        ++zeros;
    return digits.mid(zeros);
}

int CompareNumbers(const QString& left, const QString& right)
{
    if (left.size() != right.size())
        return left.size() < right.size() ? -1 : 1;
    return left.compare(right);
}

QStringList Runs(const QString& text)
{
    QStringList runs;
    for (qsizetype i = 0; i < text.size();) {
        qsizetype end = i + 1;
        while (end < text.size() && IsDigit(text.at(end)) == IsDigit(text.at(i)))
            ++end;
        runs << text.mid(i, end - i);
        i = end;
    }
    return runs;
}

int CompareRuns(const QString& left, const QString& right)
{
    if (IsNumber(left) && IsNumber(right))
        return CompareNumbers(WithoutLeadingZeros(left), WithoutLeadingZeros(right));
    return left.compare(right);
}

} // namespace

Version::Version(const QString& text)
{
    const qsizetype hyphen = text.indexOf(QLatin1Char('-'));
    const QString numbers = hyphen < 0 ? text : text.left(hyphen);
    const QStringList parts = numbers.split(QLatin1Char('.'));
    numeric = std::all_of(parts.cbegin(), parts.cend(), IsNumber);
    if (!numeric)
        return;
    for (const QString& part : parts)
        components << WithoutLeadingZeros(part);
    hasSuffix = hyphen >= 0;
    if (hasSuffix)
        suffix = Runs(text.mid(hyphen + 1));
}

bool Version::greater(const Version& other) const
{
    if (!numeric || !other.numeric)
        return numeric && !other.numeric;

    const qsizetype count = qMax(components.size(), other.components.size());
    for (qsizetype i = 0; i < count; ++i) {
        const int order = CompareNumbers(components.value(i), other.components.value(i));
        if (order != 0)
            return order > 0;
    }

    if (hasSuffix != other.hasSuffix)
        return other.hasSuffix;
    const qsizetype runs = qMin(suffix.size(), other.suffix.size());
    for (qsizetype i = 0; i < runs; ++i) {
        const int order = CompareRuns(suffix.at(i), other.suffix.at(i));
        if (order != 0)
            return order > 0;
    }
    return suffix.size() > other.suffix.size();
}

} // namespace common
