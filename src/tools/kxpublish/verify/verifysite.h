#pragma once

#include "commands/verifycommand.h"
#include "httpread.h"
#include "output/problems.h"
#include "server/manifest.h"

#include <QEventLoop>
#include <QObject>

#include <memory>
#include <vector>

QT_BEGIN_NAMESPACE
class QNetworkAccessManager;
QT_END_NAMESPACE

namespace publish {

/** Reads builds back over the network, from the server that clients ask. */
class VerifySite : public QObject
{
    Q_OBJECT
public:
    /** `result` is not owned. */
    VerifySite(const VerifySettings& settings, VerifyResult* result);
    ~VerifySite() override;

    /** Does it all in an event loop of its own, which an interrupt ends. */
    void Run();

private:
    Q_DISABLE_COPY(VerifySite)

    /** One of the transfers that run at the same time. */
    struct Transfer
    {
        std::unique_ptr<HttpRead> read;
        qsizetype file = -1; // of `files`; -1 for a reply that somebody waits for
    };

    void CheckReply();
    void CheckBuild(const Build& build);
    bool ReadManifestText(const Build& build, Manifest& manifest);
    void CheckFiles(const Manifest& manifest);
    void CheckSignedSums(const Manifest& manifest);
    bool IsKept(const updater::File& file) const;
    void CheckRanges();
    void StartNext(Transfer& transfer);
    void OnDone(Transfer& transfer);
    /** Reads into the first transfer and waits; false after an interrupt. */
    bool Fetch(const QUrl& url, quint64 most);
    void Wait();

    const VerifySettings& settings;
    VerifyResult* result;
    QString packagesUrl; // without a slash at its end
    std::vector<std::unique_ptr<QNetworkAccessManager>> managers;
    std::vector<Transfer> transfers;
    QEventLoop loop;

    // Of the build at hand.
    VerifyResult::Row row;
    Problems problems;
    QString downloadUrl;
    updater::FileList files;
    bool isSigned = false; // the manifest, with one of the keys
    QMap<QString, QByteArray> sha256;
    QMap<QString, QByteArray> kept; // content of the list of digests and its signature
    QStringList reasons;            // why each of the files is bad; empty for a good one
    qsizetype next = 0;             // of the files: not begun
    int running = 0;
    qsizetype encoded = 0; // files that came with a content encoding
    QString firstEncoded;
};

} // namespace publish
