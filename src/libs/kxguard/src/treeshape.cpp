#include "treeshape.h"

#include "strictcodec.h"

#include <algorithm>
#include <utility>

namespace guard {

QString ShapeViolation(QStringList names)
{
    std::sort(names.begin(), names.end());
    // What begins with a name follows it without a gap, though not all of it lies below: "a",
    // "a!", "a/b". Each of these begins with the one before it, and the next name with the last.
    QStringList beginnings;
    for (const QString& name : std::as_const(names)) {
        while (!beginnings.isEmpty() && !name.startsWith(beginnings.last()))
            beginnings.removeLast();
        for (const QString& above : std::as_const(beginnings)) {
            if (name == above)
                return QStringLiteral("%1 is listed twice").arg(Quoted(name));
            if (name.at(above.size()) == QLatin1Char('/'))
                return QStringLiteral("%1 lies below %2, which is not a directory")
                    .arg(Quoted(name), Quoted(above));
        }
        beginnings.append(name);
    }
    return {};
}

} // namespace guard
