#include "treeshape.h"

#include "strictcodec.h"

#include <algorithm>

namespace guard {
namespace {

// With the separator before every other character, what lies below a name follows it directly.
bool IsBefore(const QString& a, const QString& b)
{
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                        [](QChar left, QChar right) {
                                            const QChar separator = QLatin1Char('/');
                                            if (left == separator || right == separator)
                                                return left == separator && right != separator;
                                            return left < right;
                                        });
}

} // namespace

QString ShapeViolation(QStringList names)
{
    std::sort(names.begin(), names.end(), IsBefore);
    for (qsizetype i = 1; i < names.size(); ++i) {
        const QString& above = names.at(i - 1);
        const QString& name = names.at(i);
        if (name == above)
            return QStringLiteral("%1 is listed twice").arg(Quoted(name));
        if (name.startsWith(above) && name.at(above.size()) == QLatin1Char('/'))
            return QStringLiteral("%1 lies below %2, which is not a directory")
                .arg(Quoted(name), Quoted(above));
    }
    return {};
}

} // namespace guard
