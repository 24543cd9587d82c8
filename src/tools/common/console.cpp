#include "console.h"

#include <QMutexLocker>

#include <cstdio>

namespace tools {

namespace {

QString Printable(QString text)
{
    for (QChar& c : text) {
        const QChar::Category category = c.category();
        if (category == QChar::Other_Control || category == QChar::Other_Format ||
            category == QChar::Separator_Line || category == QChar::Separator_Paragraph)
            c = u'?';
    }
    return text;
}

} // namespace

Console::Console(bool quiet)
    : quiet(quiet),
      sharedTerminal(IsTerminal(Stream::Output) && IsTerminal(Stream::Error)),
      progressLine(IsTerminal(Stream::Error) ? TerminalWidth(Stream::Error) : 0)
{
}

Console::~Console()
{
    EndProgress();
}

void Console::Message(const QString& text)
{
    if (quiet)
        return;
    const QMutexLocker<QMutex> lock(&mutex);
    PrintLine(Stream::Error, text);
}

void Console::Error(const QString& text)
{
    const QMutexLocker<QMutex> lock(&mutex);
    PrintLine(Stream::Error, text);
}

void Console::Data(const QString& name, const QString& value)
{
    const QMutexLocker<QMutex> lock(&mutex);
    PrintLine(Stream::Output, name + QStringLiteral(": ") + value);
}

void Console::Progress(int percent, const QString& label)
{
    if (quiet)
        return;
    const QMutexLocker<QMutex> lock(&mutex);
    Write(Stream::Error, progressLine.Update(percent, Printable(label)));
}

void Console::BreakLine()
{
    const QMutexLocker<QMutex> lock(&mutex);
    Write(Stream::Error, progressLine.Leave());
}

void Console::EndProgress()
{
    const QMutexLocker<QMutex> lock(&mutex);
    Write(Stream::Error, progressLine.Erase());
    progressLine.Reset();
}

void Console::Write(Stream stream, const QString& text)
{
    if (text.isEmpty())
        return;
    std::FILE* file = stream == Stream::Output ? stdout : stderr;
    const QByteArray bytes = text.toLocal8Bit();
    std::fwrite(bytes.constData(), 1, std::size_t(bytes.size()), file);
    std::fflush(file);
}

void Console::PrintLine(Stream stream, const QString& text)
{
    const bool onBar = stream == Stream::Error || sharedTerminal;
    if (onBar)
        Write(Stream::Error, progressLine.Erase());
    Write(stream, Printable(text) + u'\n');
    if (onBar)
        Write(Stream::Error, progressLine.Redraw());
}

} // namespace tools
