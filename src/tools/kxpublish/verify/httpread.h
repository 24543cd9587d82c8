#pragma once

#include "httpfetch.h"
#include "signing/sha256.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QObject>
#include <QUrl>

namespace publish {

/**
 * Reads one reply after the other as clients do, into a size and a digest. Keeps the body only when
 * asked to, holds a megabyte of it otherwise, and stops as soon as there is more than was expected.
 * A body that is kept may come compressed where clients allow it, for version reply and manifest;
 * it is unpacked, and size and digest are of what it unpacks to. May be started again inside
 * done().
 */
class HttpRead : public QObject
{
    Q_OBJECT
public:
    /** `manager` is not owned and must outlive this. */
    HttpRead(QNetworkAccessManager* manager, QObject* parent);

    /** What becomes of a body. */
    enum class Body {
        Hashed,       //!< sizes and digests are all that is left of it
        Kept,         //!< as well, asked for as it is
        KeptUnpacked, //!< as well, and it may come compressed
    };
    /** Reads all of a body of `most` bytes at most; done() follows. */
    void Start(const QUrl& url, quint64 most, Body body);
    /** Whether bodies get a SHA-256 digest as well; they do not at first. */
    void MakeSha256(bool wanted) { makesSha256 = wanted; }
    /** Asks for the first byte only, and looks whether the server sends just that. */
    void StartRange(const QUrl& url);
    void Abort();

    /** Why the reply could not be read, as the end of a message, printable; empty when it could. */
    const QString& Problem() const { return problem; }
    quint64 Size() const { return size; }
    QString Digest() const { return QString::fromLatin1(hash.result().toHex()); }
    /** SHA-256 in hexadecimal digits, where it is made. */
    const QByteArray& Sha256Digest() const { return sha256Digest; }
    const QByteArray& Bytes() const { return body; }
    /** Headers of the reply; empty when there is none of that name. */
    const QByteArray& CacheControl() const { return cacheControl; }
    const QByteArray& ContentEncoding() const { return contentEncoding; }
    /** After StartRange(): the server sent a part. */
    bool HasRanges() const { return hasRanges; }

Q_SIGNALS:
    void done();

private:
    Q_DISABLE_COPY(HttpRead)

    void OnHead();
    void OnData();
    void OnEnded();
    /** False after done(), when there is more than was expected. */
    bool Take();
    void Finish(const QString& reason);

    common::http::HttpFetch fetch;
    QCryptographicHash hash;
    Sha256 sha256;
    QByteArray sha256Digest;
    QByteArray body;
    QByteArray cacheControl;
    QByteArray contentEncoding;
    QString problem;
    quint64 most = 0;
    quint64 size = 0;
    bool makesSha256 = false;
    bool keepBody = false;
    bool onlyHead = false;
    bool hasRanges = false;
};

} // namespace publish
