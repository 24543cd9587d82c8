#include "progressline.h"

#include "textwidth.h"

#include <QtGlobal>

namespace tools {

namespace {

// A log gets a line when this much more is done, but never two a second, or when this long nothing
// was said.
constexpr int logPercent = 10;
constexpr qint64 logPauseMs = 1000;
constexpr qint64 logSilenceMs = 10000;

// A line that fills the last column wraps on some terminals and can no longer be erased.
int Room(int width)
{
    return qMax(0, width - 1);
}

} // namespace

ProgressLine::ProgressLine(bool terminal) : terminal(terminal) {}

QString ProgressLine::Update(const ProgressFigures& next, int width, qint64 now)
{
    figures = next;
    figures.percent = qBound(0, next.percent, 100);
    if (!terminal)
        return LogLine(figures, now);

    shown = true;
    const QString text = ProgressLineText(figures, Room(width));
    if (drawn > 0 && text == lineText)
        return QString();
    lineText = text;
    const int columns = Columns(text);
    // Over the old one: a line that is erased before it is drawn flickers.
    const QString rest(qBound(0, qMin(drawn, Room(width)) - columns, Room(width)), u' ');
    const QString start = drawn > 0 ? QStringLiteral("\r") : QString();
    drawn = columns;
    return start + text + rest;
}

QString ProgressLine::LogLine(const ProgressFigures& next, qint64 now)
{
    if (lineTime < 0) {
        lineTime = now;
        linePercent = next.percent < 100 ? next.percent : 0;
    }
    const bool complete = next.percent == 100 && linePercent < 100;
    const bool due = next.percent - linePercent >= logPercent && now - lineTime >= logPauseMs;
    const QString text = ProgressSentence(next);
    if (!complete && !due && now - lineTime < logSilenceMs)
        return QString();
    if (text == lineText)
        return QString();
    lineText = text;
    linePercent = next.percent;
    lineTime = now;
    return text + u'\n';
}

QString ProgressLine::Erase(int width)
{
    if (drawn == 0)
        return QString();
    // Blanks instead of an escape sequence: every terminal understands them.
    const QString blanks(qMin(drawn, Room(width)), u' ');
    drawn = 0;
    return u'\r' + blanks + u'\r';
}

QString ProgressLine::Redraw(int width)
{
    if (!terminal || !shown || drawn > 0)
        return QString();
    lineText = ProgressLineText(figures, Room(width));
    drawn = Columns(lineText);
    return lineText;
}

QString ProgressLine::Leave()
{
    Reset();
    return terminal ? QStringLiteral("\n") : QString();
}

void ProgressLine::Reset()
{
    shown = false;
    drawn = 0;
    lineText.clear();
    linePercent = 0;
    lineTime = -1;
}

} // namespace tools
