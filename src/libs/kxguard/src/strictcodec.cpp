#include "strictcodec.h"

#include <QStringDecoder>

#include <algorithm>

namespace guard {
namespace {

constexpr qsizetype shownLength = 200;

bool IsControl(QChar c)
{
    return c < QChar(0x20) || (c >= QChar(0x7f) && c < QChar(0xa0));
}

} // namespace

bool DecodeBase64(const QByteArray& text, qsizetype size, QByteArray* bytes)
{
    // Looked at first: what is too long is not decoded at all.
    if (text.size() != (size + 2) / 3 * 4)
        return false;
    const auto decoded = QByteArray::fromBase64Encoding(
        text, QByteArray::Base64Encoding | QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded || decoded.decoded.size() != size || decoded.decoded.toBase64() != text)
        return false;
    *bytes = decoded.decoded;
    return true;
}

bool DecodeUtf8(const QByteArray& bytes, QString* text)
{
    // A mark of byte order is a character like any other: without it the text would be another one.
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless |
                                                     QStringDecoder::Flag::ConvertInitialBom);
    *text = decoder(bytes);
    return !decoder.hasError() && text->toUtf8() == bytes;
}

bool HasControl(const QString& text)
{
    return std::any_of(text.begin(), text.end(), IsControl);
}

bool HasLoneSurrogate(const QString& text)
{
    return !text.isValidUtf16();
}

bool IsLowerHex(const QString& text, qsizetype size)
{
    return text.size() == size && std::all_of(text.begin(), text.end(), [](QChar c) {
               return (c >= QLatin1Char('0') && c <= QLatin1Char('9')) ||
                      (c >= QLatin1Char('a') && c <= QLatin1Char('f'));
           });
}

QString Quoted(const QString& text)
{
    QString shown = text.left(shownLength);
    std::replace_if(shown.begin(), shown.end(), IsControl, QLatin1Char('?'));
    if (text.size() > shownLength)
        shown += QStringLiteral("...");
    return QLatin1Char('\'') + shown + QLatin1Char('\'');
}

} // namespace guard
