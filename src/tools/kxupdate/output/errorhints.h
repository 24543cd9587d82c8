#pragma once

#include <QString>

/** What was seen of the network beside an error. */
struct NetworkFinding
{
    QString webPage; //!< address of a web page that came instead of what was asked for, or empty
    QString proxy;   //!< "host:port" of what the last failed request went through, or empty
};

/** True when the cause of the error lies with the server or the way to it. */
bool IsServerError(int code);

/**
 * What to do about an error, in a sentence or a few; `text` is the error's own text. Every code of
 * the library has one.
 */
QString ErrorHint(int code, const QString& text, const NetworkFinding& finding = {});
