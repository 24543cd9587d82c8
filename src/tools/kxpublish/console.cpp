#include "console.h"

#include <QStringDecoder>

#include <cstdio>

namespace publish {
namespace {

void Write(FILE* stream, const QString& text)
{
    const QByteArray bytes = text.toUtf8();
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stream);
    std::fflush(stream);
}

QString Escaped(uint value)
{
    return QStringLiteral("\\x%1").arg(value, 2, 16, QLatin1Char('0'));
}

} // namespace

void Say(const QString& text)
{
    Write(stderr, QStringLiteral("kxpublish: ") + text + QLatin1Char('\n'));
}

void Warn(const QString& text)
{
    Say(QStringLiteral("warning: ") + text);
}

void PrintDatum(const QString& key, const QString& value)
{
    Write(stdout, key + QStringLiteral(": ") + value + QLatin1Char('\n'));
}

void PrintText(const QString& text)
{
    Write(stdout, text);
}

QString Shown(const QString& name)
{
    QString shown;
    for (const QChar c : name) {
        if (c.isPrint() || c.isSurrogate())
            shown += c;
        else
            shown += Escaped(c.unicode());
    }
    return QLatin1Char('\'') + shown + QLatin1Char('\'');
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
