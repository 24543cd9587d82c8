#include "texttable.h"

namespace publish {

QStringList TableLines(const QList<QStringList>& rows, const QList<int>& right)
{
    QList<qsizetype> widths;
    for (const QStringList& row : rows) {
        for (qsizetype i = 0; i < row.size(); ++i) {
            if (i == widths.size())
                widths.append(0);
            widths[i] = qMax(widths[i], row.at(i).size());
        }
    }
    QStringList lines;
    for (const QStringList& row : rows) {
        QString line;
        for (qsizetype i = 0; i < row.size(); ++i) {
            if (i > 0)
                line += QStringLiteral("  ");
            line += right.contains(int(i)) ? row.at(i).rightJustified(widths[i])
                                           : row.at(i).leftJustified(widths[i]);
        }
        while (line.endsWith(QLatin1Char(' ')))
            line.chop(1);
        lines.append(line);
    }
    return lines;
}

} // namespace publish
