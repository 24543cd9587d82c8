#include "progressline.h"

#include <QtGlobal>

namespace tools {

namespace {

constexpr int barCells = 30;
constexpr int plainStep = 25;

} // namespace

ProgressLine::ProgressLine(int width) : width(width) {}

QString ProgressLine::Update(int percent, const QString& label)
{
    percent = qBound(0, percent, 100);
    if (width <= 0) {
        // The first and the last are shown, and one per step between them.
        const int step = percent / plainStep;
        if (lastPercent >= 0 && step == lastPercent / plainStep)
            return QString();
        lastPercent = percent;
        return QStringLiteral("  %1%  %2\n").arg(percent, 3).arg(label);
    }

    const QString next = Bar(percent, label);
    if (drawn && next == bar)
        return QString();
    const QString erase = Erase();
    lastPercent = percent;
    bar = next;
    drawn = true;
    return erase + bar;
}

QString ProgressLine::Erase()
{
    if (!drawn)
        return QString();
    drawn = false;
    // Blanks instead of an escape sequence: every terminal understands them.
    return u'\r' + QString(bar.size(), u' ') + u'\r';
}

QString ProgressLine::Redraw()
{
    if (drawn || bar.isEmpty())
        return QString();
    drawn = true;
    return bar;
}

QString ProgressLine::Leave()
{
    drawn = false;
    bar.clear();
    return width > 0 ? QStringLiteral("\n") : QString();
}

void ProgressLine::Reset()
{
    lastPercent = -1;
    bar.clear();
    drawn = false;
}

QString ProgressLine::Bar(int percent, const QString& label) const
{
    const int filled = percent * barCells / 100;
    const QString text = QStringLiteral("  [%1%2] %3%  %4")
                             .arg(QString(filled, u'#'), QString(barCells - filled, u'.'))
                             .arg(percent, 3)
                             .arg(label);
    // A line that fills the last column wraps on some terminals and can no longer be erased.
    return text.left(qMax(1, width - 1));
}

} // namespace tools
