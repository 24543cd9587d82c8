#include "console.h"

#include "common/textconsole.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QStringDecoder>

#include <cstdio>
#include <memory>

namespace publish {
namespace {

struct Output
{
    OutputStyle style;
    std::unique_ptr<tools::TextConsole> console = std::make_unique<tools::TextConsole>(false);
    QJsonObject result;
    QJsonArray problems;
    QJsonArray warnings;
};

Output& TheOutput()
{
    static Output output;
    return output;
}

QString Named(const QString& text)
{
    return QStringLiteral("kxpublish: ") + text;
}

void Write(FILE* stream, const QString& text)
{
    const QByteArray bytes = text.toUtf8();
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stream);
    std::fflush(stream);
}

// JSON leaves all but the oldest control characters as they are; a terminal may be what reads it.
void WriteJson(const QJsonObject& object)
{
    QString text;
    for (const QChar c : QString::fromUtf8(QJsonDocument(object).toJson())) {
        if (c.isPrint() || c.isSurrogate() || c == QLatin1Char('\n'))
            text += c;
        else
            text += QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QLatin1Char('0'));
    }
    Write(stdout, text);
}

QString Escaped(uint value)
{
    return QStringLiteral("\\x%1").arg(value, 2, 16, QLatin1Char('0'));
}

// "linked-bytes" as "linkedBytes", as members are called elsewhere.
QString MemberName(const QString& key)
{
    QStringList words = key.split(QLatin1Char('-'));
    for (qsizetype i = 1; i < words.size(); ++i)
        words[i].replace(0, 1, words.at(i).left(1).toUpper());
    return words.join(QString());
}

} // namespace

void SetOutputStyle(const OutputStyle& style)
{
    TheOutput().style = style;
    TheOutput().console = std::make_unique<tools::TextConsole>(style.quiet);
}

void Say(const QString& text)
{
    TheOutput().console->Message(Named(text));
}

void Complain(const QString& text)
{
    TheOutput().console->Error(Named(text));
    TheOutput().problems.append(text);
}

void Warn(const QString& text)
{
    TheOutput().console->Error(Named(QStringLiteral("warning: ") + text));
    TheOutput().warnings.append(text);
}

void PrintDatum(const QString& key, const QString& value)
{
    if (TheOutput().style.json)
        TheOutput().result.insert(MemberName(key), value);
    else
        TheOutput().console->Data(key, value);
}

void PrintDatum(const QString& key, quint64 value)
{
    if (TheOutput().style.json)
        TheOutput().result.insert(MemberName(key), qint64(value));
    else
        TheOutput().console->Data(key, QString::number(value));
}

void PrintText(const QString& text)
{
    if (!TheOutput().style.json)
        Write(stdout, text);
}

void PrintJson(const QJsonObject& result)
{
    for (auto member = result.constBegin(); member != result.constEnd(); ++member)
        TheOutput().result.insert(member.key(), member.value());
}

void ShowProgress(int percent, const QString& label)
{
    TheOutput().console->Progress(percent, label);
}

void EndProgress()
{
    TheOutput().console->EndProgress();
}

void FlushOutput()
{
    if (TheOutput().style.json)
        WriteJson(TheOutput().result);
}

void FinishOutput(const QString& command, int exitStatus, const QString& word)
{
    Output& output = TheOutput();
    output.console->EndProgress();
    if (!output.style.json)
        return;
    output.result.insert(QStringLiteral("command"), command);
    output.result.insert(QStringLiteral("exit"), exitStatus);
    output.result.insert(QStringLiteral("result"), word);
    // A result may have some of its own.
    const auto append = [&output](const QString& key, const QJsonArray& texts) {
        QJsonArray all = output.result.value(key).toArray();
        for (const QJsonValue& text : texts)
            all.append(text);
        output.result.insert(key, all);
    };
    append(QStringLiteral("problems"), output.problems);
    append(QStringLiteral("warnings"), output.warnings);
    WriteJson(output.result);
}

bool IsOutputLost()
{
    return std::ferror(stdout) != 0;
}

QString Printable(const QString& text)
{
    QString printable;
    for (const QChar c : text) {
        if (c.isPrint() || c.isSurrogate())
            printable += c;
        else
            printable += Escaped(c.unicode());
    }
    return printable;
}

QString Shown(const QString& name)
{
    return QLatin1Char('\'') + Printable(name) + QLatin1Char('\'');
}

QString Shown(const QByteArray& nativeName)
{
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::ConvertInitialBom);
    const QString decoded = decoder(nativeName);
    if (!decoder.hasError())
        return Shown(decoded);
    QString shown;
    for (const char c : nativeName) {
        const uchar byte = uchar(c);
        shown += byte < 0x20 || byte >= 0x7f ? Escaped(byte) : QString(QLatin1Char(c));
    }
    return QLatin1Char('\'') + shown + QLatin1Char('\'');
}

} // namespace publish
