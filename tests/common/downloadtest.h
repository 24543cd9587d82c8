#pragma once

#include "httptestserver.h"
#include "loopticker.h"
#include "quietperiod.h"
#include "transfertuning.h"
#include "wiringguard.h"

#include <kxcommon/errors.h>
#include <kxcommon/ifiledownload.h>

#include <QCryptographicHash>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <memory>

#include <sys/stat.h>

Q_DECLARE_METATYPE(kxtest::Reply)

namespace kxtest::download {

constexpr int patience = 30000;

inline QString DigestOf(const QByteArray& content)
{
    return QString::fromLatin1(QCryptographicHash::hash(content, QCryptographicHash::Md5).toHex());
}

inline QByteArray Contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(not there)");
}

inline void WriteFile(const QString& path, const QByteArray& content)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        qFatal("cannot write a file of the test");
}

/** Permission bits, as chmod counts them; of a link those of the link itself. */
inline uint ModeOf(const QString& path)
{
    struct stat info = {};
    lstat(QFile::encodeName(path).constData(), &info);
    return info.st_mode & 07777;
}

/** What the tests of downloads share: a server, a directory, and a download of "/f" to "f". */
class DownloadTest : public QObject
{
    Q_OBJECT
protected:
    QString Destination() const { return dir->filePath(QStringLiteral("f")); }
    QString Partial() const { return dir->filePath(QStringLiteral(".f.kx.part")); }

    /** Everything that stands in the directory. */
    QStringList Entries() const
    {
        return QDir(dir->path())
            .entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    }

    /** Serves `content` under "/f", unless something is served there, and makes its download. */
    std::unique_ptr<common::http::IFileDownload> MakeDownload(const QByteArray& content)
    {
        if (!bodySet)
            server->SetBody(QStringLiteral("/f"), content);
        std::unique_ptr<common::http::IFileDownload> download(
            common::http::CreateFileDownload(manager.get(), nullptr));
        download->SetUrl(server->Url(QStringLiteral("/f")));
        download->SetFilePath(Destination());
        download->SetFileSize(quint64(content.size()));
        download->SetFileMD5(DigestOf(content));
        return download;
    }

    /** Answers requests for "/f" so until the download makes that attempt. Scripted replies would
     *  not do, as Qt repeats requests by itself when a connection ends early. */
    void FaultUntilAttempt(const common::http::IFileDownload& download, int attempt,
                           const Reply& fault)
    {
        server->SetHandler(QStringLiteral("/f"), [&download, attempt, fault](const Request&) {
            return download.Attempt() < attempt ? fault : Reply();
        });
    }

    /** The ranges that were asked for, in order, without Qt's own repetitions. */
    QByteArrayList Ranges() const
    {
        QByteArrayList ranges;
        for (const Request& request : server->Requests()) {
            const QByteArray range = request.Header("Range");
            if (ranges.isEmpty() || ranges.last() != range)
                ranges += range;
        }
        return ranges;
    }

    /** Runs the download: "complete", or "CODE: TEXT" of its failure. */
    static QString Outcome(common::http::IFileDownload& download)
    {
        using common::http::IFileDownload;
        QSignalSpy complete(&download, SIGNAL(complete()));
        QSignalSpy failed(&download, SIGNAL(failed(int, const QString&)));
        if (!download.StartDownload())
            return QStringLiteral("not started");
        if (!complete.isEmpty() || !failed.isEmpty())
            return QStringLiteral("signalled from inside StartDownload()");
        QEventLoop loop;
        connect(&download, &IFileDownload::complete, &loop, &QEventLoop::quit);
        connect(&download, &IFileDownload::failed, &loop, &QEventLoop::quit);
        QTimer::singleShot(patience, &loop, &QEventLoop::quit);
        loop.exec();
        if (complete.size() + failed.size() != 1)
            return QStringLiteral("no outcome");
        if (download.IsRunning())
            return QStringLiteral("still running");
        if (!complete.isEmpty())
            return QStringLiteral("complete");
        const QList<QVariant> error = failed.first();
        return QStringLiteral("%1: %2").arg(error.at(0).toInt()).arg(error.at(1).toString());
    }

    /** Set by tests that choose the body of "/f" themselves. */
    bool bodySet = false;
    std::unique_ptr<QNetworkAccessManager> manager;
    std::unique_ptr<HttpTestServer> server;
    std::unique_ptr<QTemporaryDir> dir;

protected Q_SLOTS:
    void init()
    {
        FailOnWiringWarnings();
        common::http::Tuning().firstPauseMs = 1;
        bodySet = false;
        manager = std::make_unique<QNetworkAccessManager>();
        manager->setProxy(QNetworkProxy::NoProxy);
        server = std::make_unique<HttpTestServer>();
        dir = std::make_unique<QTemporaryDir>();
    }

    void cleanup()
    {
        common::http::HoldTransferWorker(false);
        QCOMPARE(common::http::TransferWorkerCount(), 0);
        dir.reset();
        server.reset();
        manager.reset();
        common::http::Tuning() = common::http::TransferTuning();
    }
};

} // namespace kxtest::download
