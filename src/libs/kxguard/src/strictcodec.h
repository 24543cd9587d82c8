#pragma once

#include <QByteArray>
#include <QString>

namespace guard {

/**
 * Decodes base64 in its one canonical form: padded, unused bits zero, nothing between or after. A
 * text has thus one meaning and bytes have one text. False unless `size` bytes came out.
 */
bool DecodeBase64(const QByteArray& text, qsizetype size, QByteArray* bytes);

/** Decodes UTF-8 so that encoding the result gives the same bytes; false when it would not. */
bool DecodeUtf8(const QByteArray& bytes, QString* text);

/** True when `text` has a control character of ASCII or Latin 1. */
bool HasControl(const QString& text);
/** True when `text` has half of a surrogate pair, which UTF-8 cannot carry. */
bool HasLoneSurrogate(const QString& text);
/** True when `text` is `size` lower-case hexadecimal digits. */
bool IsLowerHex(const QString& text, qsizetype size);

/** `text` for a message: quoted, at most 200 characters, a "?" for each control character. */
QString Quoted(const QString& text);

} // namespace guard
