#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>

namespace kxtest {

/** What a server answered. */
struct HttpExchange
{
    int status = 0; //!< 0 when there was no answer
    QByteArray body;
    QList<QPair<QByteArray, QByteArray>> headers;

    /** Values of the header `name`, in any case, joined by ", "; empty when it is not there. */
    QByteArray Header(const QByteArray& name) const;
};

/**
 * Sends one request on a connection of its own and waits, in a local event loop, for the whole
 * answer. Redirects are not followed, and nothing is unpacked: "Accept-Encoding" is "identity"
 * unless `headers` has it. No proxy and no cache takes part.
 */
HttpExchange Exchange(const QString& url, const QList<QPair<QByteArray, QByteArray>>& headers = {},
                      const QByteArray& method = "GET", const QByteArray& body = {});

} // namespace kxtest
