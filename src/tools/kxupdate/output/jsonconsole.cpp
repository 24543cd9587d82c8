#include "jsonconsole.h"

#include "common/textwidth.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QMutexLocker>

#include <cstdio>

namespace {

// Between two lines of progress that differ in less than a percent.
constexpr qint64 progressPauseMs = 200;

// JSON leaves all but the oldest control characters as they are; a terminal may be what reads it.
QByteArray Escaped(const QByteArray& json)
{
    const QString text = QString::fromUtf8(json);
    if (tools::Printable(text) == text)
        return json;
    QString result;
    for (const uint c : text.toUcs4()) {
        const QString character = QString::fromUcs4(reinterpret_cast<const char32_t*>(&c), 1);
        if (tools::Printable(character) == character) {
            result += character;
            continue;
        }
        for (const QChar unit : character)
            result += QStringLiteral("\\u%1").arg(unit.unicode(), 4, 16, QLatin1Char('0'));
    }
    return result.toUtf8();
}

void InsertKnown(QJsonObject& members, const char* name, qint64 number)
{
    if (number >= 0)
        members.insert(QLatin1String(name), number);
}

} // namespace

JsonConsole::JsonConsole(bool quiet) : quiet(quiet)
{
    clock.start();
}

void JsonConsole::Message(const QString& text)
{
    if (!quiet)
        Print("message", {{QStringLiteral("text"), text.trimmed()}});
}

void JsonConsole::Warning(const QString& text)
{
    Print("warning", {{QStringLiteral("text"), text}});
}

void JsonConsole::Error(const QString& text)
{
    Print("error", {{QStringLiteral("text"), text}});
}

void JsonConsole::Failure(int code, const QString& text, const QString& hint)
{
    QJsonObject members{{QStringLiteral("code"), code}, {QStringLiteral("text"), text}};
    if (!hint.isEmpty())
        members.insert(QStringLiteral("hint"), hint);
    Print("error", members);
}

void JsonConsole::State(const QString& name, const QString& text)
{
    if (!quiet)
        Print("state", {{QStringLiteral("state"), name}, {QStringLiteral("text"), text}});
}

void JsonConsole::Data(const QString& name, const QString& value)
{
    Print("data", {{QStringLiteral("name"), name}, {QStringLiteral("value"), value}});
    const QMutexLocker<QMutex> lock(&mutex);
    data.insert(name, value);
}

void JsonConsole::Differences(const QList<tools::Difference>& differences)
{
    for (const tools::Difference& difference : differences)
        Print("difference", {{QStringLiteral("difference"), difference.kind},
                             {QStringLiteral("name"), difference.name}});
}

void JsonConsole::Dropped(const QStringList& names)
{
    for (const QString& name : names)
        Print("dropped", {{QStringLiteral("name"), name}});
}

void JsonConsole::Log(const QString& line)
{
    const QByteArray bytes = (tools::Printable(line) + u'\n').toLocal8Bit();
    const QMutexLocker<QMutex> lock(&mutex);
    std::fwrite(bytes.constData(), 1, std::size_t(bytes.size()), stderr);
    std::fflush(stderr);
}

void JsonConsole::Progress(const tools::ProgressFigures& next)
{
    if (quiet)
        return;
    {
        const QMutexLocker<QMutex> lock(&mutex);
        if (!fresh && figures == next)
            return;
        figures = next;
        pending = true;
        const bool worth = fresh || next.percent != printedPercent || next.step != printedStep;
        if (!worth && clock.elapsed() < progressPauseMs)
            return;
    }
    PrintProgress();
}

void JsonConsole::EndProgress()
{
    PrintProgress();
    const QMutexLocker<QMutex> lock(&mutex);
    fresh = true;
}

void JsonConsole::Result(const QString& word, int exitStatus)
{
    QJsonObject members;
    {
        const QMutexLocker<QMutex> lock(&mutex);
        members = std::exchange(data, QJsonObject());
    }
    members.insert(QStringLiteral("result"), word);
    members.insert(QStringLiteral("exit"), exitStatus);
    Print("result", members);
}

void JsonConsole::PrintProgress()
{
    QJsonObject members;
    {
        const QMutexLocker<QMutex> lock(&mutex);
        if (!std::exchange(pending, false))
            return;
        fresh = false;
        clock.restart();
        printedPercent = figures.percent;
        printedStep = figures.step;
        members = {{QStringLiteral("percent"), figures.percent},
                   {QStringLiteral("step"), figures.step}};
        InsertKnown(members, "filesDone", figures.filesDone);
        InsertKnown(members, "filesTotal", figures.filesTotal);
        InsertKnown(members, "bytesDone", figures.bytesDone);
        InsertKnown(members, "bytesTotal", figures.bytesTotal);
        InsertKnown(members, "bytesPerSecond", figures.bytesPerSecond);
        InsertKnown(members, "secondsLeft", figures.secondsLeft);
        if (!figures.file.isEmpty())
            members.insert(QStringLiteral("file"), figures.file);
    }
    Print("progress", members);
}

void JsonConsole::Print(const char* type, const QJsonObject& members)
{
    // By hand, because a reader looks for the type first and an object sorts its members.
    const QByteArray rest = QJsonDocument(members).toJson(QJsonDocument::Compact).mid(1);
    const QByteArray time = QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs).toLatin1();
    const QByteArray line = QByteArray("{\"type\":\"") + type + "\",\"time\":\"" + time + "\"" +
                            (members.isEmpty() ? "" : ",") + Escaped(rest) + '\n';
    const QMutexLocker<QMutex> lock(&mutex);
    std::fwrite(line.constData(), 1, std::size_t(line.size()), stdout);
    std::fflush(stdout);
}
