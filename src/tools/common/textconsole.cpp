#include "textconsole.h"

#include "textwidth.h"

#include <QMutexLocker>

#include <cstdio>

namespace tools {

namespace {

constexpr qsizetype mostNames = 20;

// Build servers offer a terminal now and then, and keep what it shows as a log.
bool IsBuildServer()
{
    const QByteArray value = qgetenv("CI");
    return !value.isEmpty() && value != "false";
}

QString More(qsizetype count)
{
    return QStringLiteral("and %1 more").arg(count);
}

} // namespace

TextConsole::TextConsole(bool quiet)
    : quiet(quiet),
      drawsLine(IsTerminal(Stream::Error) && !IsBuildServer()),
      sharedTerminal(drawsLine && IsTerminal(Stream::Output)),
      progressLine(drawsLine)
{
    clock.start();
}

TextConsole::~TextConsole()
{
    Write(Stream::Error, progressLine.Erase(Width()));
}

void TextConsole::Message(const QString& text)
{
    if (quiet)
        return;
    const QMutexLocker<QMutex> lock(&mutex);
    PrintLine(Stream::Error, text);
}

void TextConsole::Warning(const QString& text)
{
    Error(text);
}

void TextConsole::Error(const QString& text)
{
    const QMutexLocker<QMutex> lock(&mutex);
    PrintLine(Stream::Error, text);
}

void TextConsole::Failure(int code, const QString& text, const QString& hint)
{
    const QMutexLocker<QMutex> lock(&mutex);
    PrintLine(Stream::Error, QStringLiteral("Error %1: %2").arg(code).arg(text));
    if (!hint.isEmpty())
        PrintLine(Stream::Error, QStringLiteral("    ") + hint);
}

void TextConsole::State(const QString& name, const QString& text)
{
    Message(QStringLiteral("  %1 %2").arg(name, -16).arg(text));
}

void TextConsole::Data(const QString& name, const QString& value)
{
    const QMutexLocker<QMutex> lock(&mutex);
    PrintLine(Stream::Output, name + QStringLiteral(": ") + value);
}

void TextConsole::Differences(const QList<Difference>& differences)
{
    const QString name = QStringLiteral("difference");
    for (const Difference& difference : differences.mid(0, mostNames))
        Data(name, difference.kind + u' ' + difference.name);
    if (differences.size() > mostNames)
        Data(name, More(differences.size() - mostNames));
}

void TextConsole::Dropped(const QStringList& names)
{
    if (names.isEmpty())
        return;
    Message(QStringLiteral("Not part of the new version, so dropped with the old one:"));
    for (const QString& name : names.mid(0, mostNames))
        Message(QStringLiteral("    ") + name);
    if (names.size() > mostNames)
        Message(QStringLiteral("    ") + More(names.size() - mostNames));
}

void TextConsole::Log(const QString& line)
{
    Error(line);
}

void TextConsole::Progress(const ProgressFigures& figures)
{
    if (quiet)
        return;
    ProgressFigures printable = figures;
    printable.step = Printable(figures.step);
    printable.file = Printable(figures.file);
    const QMutexLocker<QMutex> lock(&mutex);
    Write(Stream::Error, progressLine.Update(printable, Width(), clock.elapsed()));
}

void TextConsole::EndProgress()
{
    const QMutexLocker<QMutex> lock(&mutex);
    Write(Stream::Error, progressLine.Erase(Width()));
    progressLine.Reset();
}

void TextConsole::BreakLine()
{
    const QMutexLocker<QMutex> lock(&mutex);
    Write(Stream::Error, progressLine.Leave());
}

void TextConsole::Result(const QString& word, int)
{
    Data(QStringLiteral("result"), word);
}

void TextConsole::Write(Stream stream, const QString& text)
{
    if (text.isEmpty())
        return;
    std::FILE* file = stream == Stream::Output ? stdout : stderr;
    const QByteArray bytes = text.toLocal8Bit();
    std::fwrite(bytes.constData(), 1, std::size_t(bytes.size()), file);
    std::fflush(file);
}

void TextConsole::PrintLine(Stream stream, const QString& text)
{
    const bool onBar = stream == Stream::Error || sharedTerminal;
    if (onBar)
        Write(Stream::Error, progressLine.Erase(Width()));
    Write(stream, Printable(text) + u'\n');
    if (onBar)
        Write(Stream::Error, progressLine.Redraw(Width()));
}

int TextConsole::Width() const
{
    return drawsLine ? TerminalWidth(Stream::Error) : 0;
}

} // namespace tools
