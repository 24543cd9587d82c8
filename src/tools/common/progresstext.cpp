#include "progresstext.h"

#include "textwidth.h"

#include <iterator>
#include <tuple>

namespace tools {

namespace {

constexpr int mostCells = 20;
constexpr int leastCells = 10;
constexpr int leastName = 12;
constexpr int mostName = 60;
constexpr int indentation = 2;
constexpr int gap = 2;
const QString unknownTime = QStringLiteral("--:--");

const char* const units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};

// The unit in which `bytes` has at most three digits before the point.
int UnitOf(qint64 bytes)
{
    int unit = 0;
    for (double value = double(bytes); value >= 999.5 && unit + 1 < int(std::size(units)); ++unit)
        value /= 1024;
    return unit;
}

QString Amount(qint64 bytes, int unit, int decimals)
{
    double value = double(bytes);
    for (int i = 0; i < unit; ++i)
        value /= 1024;
    return QString::number(value, 'f', unit == 0 ? 0 : decimals);
}

QString Unit(int unit)
{
    return QString::fromLatin1(units[unit]);
}

QString Speed(qint64 bytesPerSecond)
{
    const int unit = UnitOf(bytesPerSecond);
    QString amount = Amount(bytesPerSecond, unit, 1);
    if (amount.size() > 4)
        amount = Amount(bytesPerSecond, unit, 0);
    return amount + u' ' + Unit(unit) + QStringLiteral("/s");
}

QString Time(int seconds)
{
    if (seconds < 0)
        return unknownTime;
    const int hours = seconds / 3600;
    const int minutes = seconds / 60 % 60;
    const QString rest = QStringLiteral("%1").arg(seconds % 60, 2, 10, QLatin1Char('0'));
    return hours > 0 ? QStringLiteral("%1:%2:%3")
                           .arg(hours)
                           .arg(minutes, 2, 10, QLatin1Char('0'))
                           .arg(rest)
                     : QStringLiteral("%1:%2").arg(minutes).arg(rest);
}

QString Files(const ProgressFigures& figures)
{
    const QString total = QString::number(figures.filesTotal);
    return QStringLiteral("%1/%2 files").arg(figures.filesDone, int(total.size())).arg(total);
}

QString Bytes(const ProgressFigures& figures)
{
    const int unit = UnitOf(figures.bytesTotal);
    const QString total = Amount(figures.bytesTotal, unit, 1);
    return Amount(figures.bytesDone, unit, 1).rightJustified(total.size()) + u'/' + total + u' ' +
           Unit(unit);
}

QString Bar(int percent, int cells)
{
    const int filled = percent * cells / 100;
    return u'[' + QString(filled, u'#') + QString(cells - filled, u'.') + u']';
}

// Takes the columns of `text` and of the gap before it off `room`, when there are so many.
QString Fitting(const QString& text, int& room)
{
    const int needed = gap + Columns(text);
    if (text.isEmpty() || needed > room)
        return QString();
    room -= needed;
    return QString(gap, u' ') + text;
}

} // namespace

bool operator==(const ProgressFigures& a, const ProgressFigures& b)
{
    const auto all = [](const ProgressFigures& f) {
        return std::tie(f.step, f.percent, f.filesDone, f.filesTotal, f.bytesDone, f.bytesTotal,
                        f.bytesPerSecond, f.secondsLeft, f.file);
    };
    return all(a) == all(b);
}

QString ProgressLineText(const ProgressFigures& figures, int columns)
{
    const QString percent = QStringLiteral("%1%").arg(figures.percent, 3);
    int room = columns - int(percent.size());
    if (room < 0)
        return QString();

    // In the order of their worth; they are put together in that of reading.
    const QString step = Fitting(CutEnd(figures.step, room - gap), room);
    QString bytes;
    QString time;
    if (figures.bytesTotal >= 0) {
        bytes = Fitting(Bytes(figures), room);
        time = Fitting(Time(figures.secondsLeft).rightJustified(5) + QStringLiteral(" left"), room);
    }
    QString speed;
    if (figures.bytesPerSecond >= 0)
        speed = Fitting(Speed(figures.bytesPerSecond).rightJustified(10), room);
    QString files;
    if (figures.filesTotal >= 0)
        files = Fitting(Files(figures), room);
    QString margin;
    if (room >= indentation) {
        margin = QString(indentation, u' ');
        room -= indentation;
    }
    const int cells = qMin(mostCells, room - 3);
    QString bar;
    if (cells >= leastCells) {
        bar = Bar(figures.percent, cells) + u' ';
        room -= int(bar.size());
    }
    QString name;
    if (room - gap >= leastName)
        name = Fitting(CutMiddle(figures.file, qMin(mostName, room - gap)), room);

    return margin + bar + percent + step + files + bytes + speed + time + name;
}

QString ProgressSentence(const ProgressFigures& figures)
{
    QString text = QStringLiteral("  %1%  %2").arg(figures.percent, 3).arg(figures.step);
    if (figures.filesTotal >= 0)
        text += QStringLiteral(", %1 of %2 files").arg(figures.filesDone).arg(figures.filesTotal);
    if (figures.bytesTotal >= 0) {
        const int unit = UnitOf(figures.bytesTotal);
        text += QStringLiteral(", %1 of %2 %3")
                    .arg(Amount(figures.bytesDone, unit, 1), Amount(figures.bytesTotal, unit, 1),
                         Unit(unit));
    }
    if (figures.bytesPerSecond >= 0)
        text += QStringLiteral(", ") + Speed(figures.bytesPerSecond);
    if (figures.secondsLeft >= 0)
        text += QStringLiteral(", %1 left").arg(Time(figures.secondsLeft));
    return text;
}

} // namespace tools
