#include "downloadtest.h"
#include "droppedrights.h"

#include <QNetworkReply>
#include <QTcpSocket>

#include <atomic>
#include <cerrno>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace common;
using common::http::IFileDownload;
using kxtest::HttpTestServer;
using kxtest::Reply;
using namespace kxtest::download;

namespace {

const QByteArray content = "0123456789abcdefghij";

// A disk that fails, without a disk: writes to partial files beyond so many bytes fail with this
// error, and so do changes of permissions. Zero: nothing fails.
std::atomic<int> writeError{0};
std::atomic<qint64> bytesUntilError{0};
std::atomic<int> permissionError{0};

bool IsPartialFile(int fd)
{
    char path[PATH_MAX] = {};
    const QByteArray link = "/proc/self/fd/" + QByteArray::number(fd);
    const ssize_t length = readlink(link.constData(), path, sizeof path - 1);
    return length > 0 && QByteArray(path, length).endsWith(".kx.part");
}

} // namespace

// These two stand before the system's own for this program and the library linked into it.
extern "C" ssize_t write(int fd, const void* data, size_t count)
{
    using Write = ssize_t (*)(int, const void*, size_t);
    static const Write real = reinterpret_cast<Write>(dlsym(RTLD_NEXT, "write"));
    if (writeError && IsPartialFile(fd)) {
        if (bytesUntilError == 0) {
            errno = writeError;
            return -1;
        }
        // As a disk does that is nearly full: part of it is written, the rest fails.
        count = size_t(qMin(qint64(count), qint64(bytesUntilError)));
        bytesUntilError -= qint64(count);
    }
    return real(fd, data, count);
}

extern "C" int fchmod(int fd, mode_t mode)
{
    using Change = int (*)(int, mode_t);
    static const Change real = reinterpret_cast<Change>(dlsym(RTLD_NEXT, "fchmod"));
    if (permissionError) {
        errno = permissionError;
        return -1;
    }
    return real(fd, mode);
}

/** Downloads that fail: code, text, what is left on the disk, how often the server was asked. */
class TestFileDownloadFailures : public DownloadTest
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void ServerFailuresAreReported_data();
    void ServerFailuresAreReported();
    void PassingFailuresAreOutlived_data();
    void PassingFailuresAreOutlived();
    void NumberOfAttemptsIsTheOption_data();
    void NumberOfAttemptsIsTheOption();
    void PausesGrow();
    void MoreThanExpectedStopsTheTransfer();
    void RefusedConnectionIsReported();
    void SilenceTimesOut_data();
    void SilenceTimesOut();
    void RedirectFromHttpsToHttpIsRefused();
    void UntrustedCertificateIsReported();
    void ProxyThatWantsCredentialsIsNamed();
    void DigestThatIsNoneFailsWithoutTheServer_data();
    void DigestThatIsNoneFailsWithoutTheServer();
    void DiskFailuresAreReported_data();
    void DiskFailuresAreReported();
    void FullDiskCanBeResumed();
    void PermissionsThatCannotBeSetAreReported_data();
    void PermissionsThatCannotBeSetAreReported();
    void DirectoryAtTheDestinationIsReported();
    void DirectoryAtThePartialIsReported();
    void DirectoryThatCannotBeMadeIsReported();
    void DirectoryThatCannotBeWrittenIsReported();
    void FailedRenameIsReported();
    void SecondTransferToOneDestinationFails_data();
    void SecondTransferToOneDestinationFails();
    void PartialFileOfAnotherProcessIsRespected();
};

void TestFileDownloadFailures::init()
{
    DownloadTest::init();
    writeError = 0;
    permissionError = 0;
}

void TestFileDownloadFailures::ServerFailuresAreReported_data()
{
    QTest::addColumn<Reply>("reply");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("reason");
    QTest::addColumn<int>("attempts");
    QTest::addColumn<QStringList>("left");
    const QStringList none;
    const QStringList part(".f.kx.part");
    for (const int status : {400, 401, 403, 404, 410})
        QTest::addRow("status %d", status) << Reply::Status(status) << int(DownloadStatus)
                                           << QString("status %1").arg(status) << 1 << none;
    for (const int status : {408, 429, 500, 502, 503, 504})
        QTest::addRow("status %d", status) << Reply::Status(status) << int(DownloadStatus)
                                           << QString("status %1").arg(status) << 3 << none;
    QTest::newRow("416 unasked") << Reply::Status(416) << int(DownloadStatus) << "status 416" << 1
                                 << none;
    Reply part206 = Reply::Body(content);
    part206.status = 206;
    QTest::newRow("206 unasked") << part206 << int(DownloadStatus) << "status 206" << 1 << none;
    QTest::newRow("304") << Reply::Status(304) << int(DownloadStatus) << "status 304" << 1 << none;
    // The first bytes are fetched three times over, so each attempt adds some.
    QTest::newRow("truncated") << Reply::TruncateAfter(3) << int(DownloadTooSmall)
                               << "the reply ended after 9 of 20 bytes" << 3 << part;
    QTest::newRow("truncated at once") << Reply::TruncateAfter(0) << int(DownloadTooSmall)
                                       << "the reply ended after 0 of 20 bytes" << 3 << none;
    QTest::newRow("chunked without end") << Reply::ChunkedWithoutEnd(3) << int(DownloadTooSmall)
                                         << "the reply ended after 9 of 20 bytes" << 3 << part;
    QTest::newRow("dropped") << Reply::Drop() << int(DownloadNetwork) << "closed" << 3 << none;
    Reply unframed = Reply::TruncateAfter(3);
    unframed.framing = Reply::Framing::UntilClose;
    QTest::newRow("ended early by the connection")
        << unframed << int(DownloadTooSmall) << "ended after 9 of 20 bytes" << 3 << part;
    QTest::newRow("announces less") << Reply::Body(content.chopped(1)) << int(DownloadTooSmall)
                                    << "19 bytes, expected were 20" << 1 << none;
    QTest::newRow("announces more") << Reply::Body(content + 'k') << int(DownloadTooLarge)
                                    << "21 bytes, expected were 20" << 1 << none;
    Reply more = Reply::Body(content + 'k');
    more.framing = Reply::Framing::Chunked;
    QTest::newRow("sends more, chunked")
        << more << int(DownloadTooLarge) << "more than the expected 20 bytes" << 1 << none;
    more.framing = Reply::Framing::UntilClose;
    QTest::newRow("sends more, ended by the connection")
        << more << int(DownloadTooLarge) << "more than the expected 20 bytes" << 1 << none;
    QTest::newRow("wrong bytes") << Reply::WrongBytes(10) << int(DownloadDigest)
                                 << "expected was " + DigestOf(content) << 1 << none;
    QTest::newRow("redirect to a file")
        << Reply::Redirect("file:///etc/passwd") << int(DownloadRedirect) << "file:///etc/passwd"
        << 1 << none;
    QTest::newRow("redirect to data")
        << Reply::Redirect("data:text/plain,x") << int(DownloadRedirect) << "data:" << 1 << none;
    QTest::newRow("redirect in a circle")
        << Reply::Redirect("/f") << int(DownloadRedirect) << "more than 20 times" << 1 << none;
    QTest::newRow("redirect without location")
        << Reply::Redirect("") << int(DownloadRedirect) << "without a valid location" << 1 << none;
}

void TestFileDownloadFailures::ServerFailuresAreReported()
{
    QFETCH(Reply, reply);
    QFETCH(int, code);
    QFETCH(QString, reason);
    QFETCH(int, attempts);
    QFETCH(QStringList, left);
    server->SetDefaultReply("/f", reply);
    const auto download = MakeDownload(content);
    const QString outcome = Outcome(*download);
    const QString start =
        QString("%1: Cannot fetch '%2': ").arg(code).arg(server->Url("/f").toString());
    QVERIFY2(outcome.startsWith(start), qPrintable(outcome));
    QVERIFY2(outcome.contains(reason), qPrintable(outcome));
    QCOMPARE(download->Attempt(), attempts);
    QCOMPARE(Entries(), left);
}

void TestFileDownloadFailures::PassingFailuresAreOutlived_data()
{
    QTest::addColumn<Reply>("reply");
    for (const int status : {408, 429, 500, 503})
        QTest::addRow("status %d", status) << Reply::Status(status);
    QTest::newRow("truncated") << Reply::TruncateAfter(3);
    QTest::newRow("reset") << Reply::ResetAfter(3);
    QTest::newRow("stalled") << Reply::StallAfter(3);
    QTest::newRow("held") << Reply::Hold();
}

void TestFileDownloadFailures::PassingFailuresAreOutlived()
{
    QFETCH(Reply, reply);
    http::Tuning().timeoutUnitMs = 10;
    const auto download = MakeDownload(content);
    FaultUntilAttempt(*download, 3, reply);
    QCOMPARE(Outcome(*download), "complete");
    QCOMPARE(Contents(Destination()), content);
    QCOMPARE(Entries(), QStringList("f"));
    QCOMPARE(download->Attempt(), 3);
}

void TestFileDownloadFailures::NumberOfAttemptsIsTheOption_data()
{
    QTest::addColumn<int>("option");
    QTest::addColumn<int>("attempts");
    QTest::newRow("negative") << -1 << 1;
    QTest::newRow("zero") << 0 << 1;
    QTest::newRow("one") << 1 << 1;
    QTest::newRow("two") << 2 << 2;
    QTest::newRow("five") << 5 << 5;
}

void TestFileDownloadFailures::NumberOfAttemptsIsTheOption()
{
    QFETCH(int, option);
    QFETCH(int, attempts);
    server->SetDefaultReply("/f", Reply::Status(503));
    const auto download = MakeDownload(content);
    download->SetOption(option);
    const QString outcome = Outcome(*download);
    QVERIFY(outcome.startsWith("610202: "));
    QCOMPARE(outcome.contains("attempt"), attempts > 1);
    QCOMPARE(server->RequestCount(), attempts);
    QCOMPARE(download->Attempt(), attempts);
}

void TestFileDownloadFailures::PausesGrow()
{
    // The first pause is short enough for a timer of the test to tell it from the second.
    http::Tuning().firstPauseMs = 300;
    server->SetDefaultReply("/f", Reply::Status(503));
    const auto download = MakeDownload(content);
    QSignalSpy failed(download.get(), SIGNAL(failed(int, const QString&)));
    QVERIFY(download->StartDownload());
    QTRY_COMPARE_WITH_TIMEOUT(server->RequestCount(), 1, patience);
    kxtest::PassTimersOf(100);
    QCOMPARE(server->RequestCount(), 1);
    QTRY_COMPARE_WITH_TIMEOUT(server->RequestCount(), 2, patience);
    kxtest::PassTimersOf(400);
    QCOMPARE(server->RequestCount(), 2);
    QTRY_COMPARE_WITH_TIMEOUT(server->RequestCount(), 3, patience);
    QVERIFY(failed.size() == 1 || failed.wait(patience));
}

void TestFileDownloadFailures::MoreThanExpectedStopsTheTransfer()
{
    // A body without end: only a transfer that stops early ends at all.
    bodySet = true;
    server->SetGeneratedBody("/f", qint64(1) << 50);
    server->SetDefaultReply("/f", Reply::Chunked());
    const auto download = MakeDownload(content);
    const QString outcome = Outcome(*download);
    QVERIFY2(outcome.startsWith("610204: "), qPrintable(outcome));
    QCOMPARE(Entries(), QStringList());
}

void TestFileDownloadFailures::RefusedConnectionIsReported()
{
    const QUrl url = kxtest::RefusedUrl();
    const auto download = MakeDownload(content);
    download->SetUrl(url);
    QCOMPARE(
        Outcome(*download),
        QString("610203: Cannot fetch '%1': Connection refused (attempt 3).").arg(url.toString()));
    QCOMPARE(Entries(), QStringList());
}

void TestFileDownloadFailures::SilenceTimesOut_data()
{
    QTest::addColumn<Reply>("reply");
    QTest::addColumn<QString>("reason");
    QTest::addColumn<QStringList>("left");
    QTest::newRow("before the reply")
        << Reply::Hold() << "no data came for 9 seconds" << QStringList();
    QTest::newRow("inside the body")
        << Reply::StallAfter(3) << "no data came for 9 seconds after 3 of 20 bytes"
        << QStringList(".f.kx.part");
}

void TestFileDownloadFailures::SilenceTimesOut()
{
    QFETCH(Reply, reply);
    QFETCH(QString, reason);
    QFETCH(QStringList, left);
    http::Tuning().timeoutUnitMs = 20;
    server->SetDefaultReply("/f", reply);
    const auto download = MakeDownload(content);
    download->SetTimeout(9);
    download->SetOption(1);
    QCOMPARE(Outcome(*download),
             QString("610201: Cannot fetch '%1': %2.").arg(server->Url("/f").toString(), reason));
    QCOMPARE(Entries(), left);
}

void TestFileDownloadFailures::RedirectFromHttpsToHttpIsRefused()
{
    HttpTestServer secure(HttpTestServer::Tls);
    QVERIFY(secure.IsListening());
    connect(manager.get(), &QNetworkAccessManager::sslErrors, this,
            [](QNetworkReply* reply) { reply->ignoreSslErrors(); });
    const auto download = MakeDownload(content);
    secure.SetDefaultReply("/down", Reply::Redirect(server->Url("/f").toString()));
    download->SetUrl(secure.Url("/down"));
    QCOMPARE(Outcome(*download),
             QString("610205: Cannot fetch '%1': redirected from https to '%2'.")
                 .arg(secure.Url("/down").toString(), server->Url("/f").toString()));
    QCOMPARE(server->RequestCount(), 0);
    secure.SetBody("/f", content);
    const auto good = MakeDownload(content);
    good->SetUrl(secure.Url("/f"));
    QCOMPARE(Outcome(*good), "complete");
}

void TestFileDownloadFailures::UntrustedCertificateIsReported()
{
    HttpTestServer secure(HttpTestServer::Tls);
    QVERIFY(secure.IsListening());
    const auto download = MakeDownload(content);
    download->SetUrl(secure.Url("/f"));
    const QString outcome = Outcome(*download);
    QVERIFY2(
        outcome.startsWith(QString("610207: Cannot fetch '%1': ").arg(secure.Url("/f").toString())),
        qPrintable(outcome));
    QVERIFY2(outcome.contains("self-signed"), qPrintable(outcome));
    QCOMPARE(download->Attempt(), 1);
}

void TestFileDownloadFailures::ProxyThatWantsCredentialsIsNamed()
{
    server->SetProxyAuthentication(true);
    manager->setProxy(QNetworkProxy(QNetworkProxy::HttpProxy, "127.0.0.1", server->Port()));
    const auto download = MakeDownload(content);
    download->SetUrl(QUrl("http://origin.invalid/f"));
    const QString outcome = Outcome(*download);
    QVERIFY2(outcome.startsWith(QString("610206: Cannot fetch 'http://origin.invalid/f': the proxy "
                                        "'127.0.0.1:%1' wants credentials")
                                    .arg(server->Port())),
             qPrintable(outcome));
    QCOMPARE(download->Attempt(), 1);
}

void TestFileDownloadFailures::DigestThatIsNoneFailsWithoutTheServer_data()
{
    QTest::addColumn<QString>("digest");
    QTest::newRow("too short") << DigestOf(content).chopped(1);
    QTest::newRow("too long") << DigestOf(content) + '0';
    QTest::newRow("not hexadecimal") << 'g' + DigestOf(content).mid(1);
    QTest::newRow("not ASCII") << QChar(0x660) + DigestOf(content).mid(1);
}

void TestFileDownloadFailures::DigestThatIsNoneFailsWithoutTheServer()
{
    QFETCH(QString, digest);
    const auto download = MakeDownload(content);
    download->SetFileMD5(digest);
    QCOMPARE(Outcome(*download),
             QString("610209: Cannot fetch '%1': the expected digest '%2' is not an MD5.")
                 .arg(server->Url("/f").toString(), digest));
    QCOMPARE(server->RequestCount(), 0);
}

void TestFileDownloadFailures::DiskFailuresAreReported_data()
{
    QTest::addColumn<int>("error");
    QTest::addColumn<int>("bytes");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("reason");
    QTest::addColumn<QStringList>("left");
    const QStringList part(".f.kx.part");
    QTest::newRow("full") << ENOSPC << 5 << int(DownloadNoSpace) << "No space left on device"
                          << part;
    QTest::newRow("full at once") << ENOSPC << 0 << int(DownloadNoSpace)
                                  << "No space left on device" << QStringList();
    QTest::newRow("over quota") << EDQUOT << 5 << int(DownloadNoSpace) << "Disk quota exceeded"
                                << part;
    QTest::newRow("broken") << EIO << 5 << int(DownloadWrite) << "Input/output error"
                            << QStringList();
}

void TestFileDownloadFailures::DiskFailuresAreReported()
{
    QFETCH(int, error);
    QFETCH(int, bytes);
    QFETCH(int, code);
    QFETCH(QString, reason);
    QFETCH(QStringList, left);
    bytesUntilError = bytes;
    writeError = error;
    const auto download = MakeDownload(content);
    QCOMPARE(
        Outcome(*download),
        QString("%1: Cannot write the partial file '%2': %3.").arg(code).arg(Partial(), reason));
    QCOMPARE(Entries(), left);
    QCOMPARE(server->RequestCount(), 1);
}

void TestFileDownloadFailures::FullDiskCanBeResumed()
{
    bytesUntilError = 5;
    writeError = ENOSPC;
    QVERIFY(Outcome(*MakeDownload(content)).startsWith("610212: "));
    writeError = 0;
    QCOMPARE(Outcome(*MakeDownload(content)), "complete");
    QCOMPARE(Contents(Destination()), content);
    QCOMPARE(server->Requests().last().Header("Range"), QByteArray("bytes=5-"));
}

void TestFileDownloadFailures::PermissionsThatCannotBeSetAreReported_data()
{
    QTest::addColumn<bool>("present");
    QTest::newRow("fetched file") << false;
    QTest::newRow("present file") << true;
}

void TestFileDownloadFailures::PermissionsThatCannotBeSetAreReported()
{
    QFETCH(bool, present);
    if (present)
        WriteFile(Destination(), content);
    permissionError = EPERM;
    const auto download = MakeDownload(content);
    download->SetFilePermissions(QFileDevice::Permissions(0x7711));
    QCOMPARE(Outcome(*download),
             QString("610215: Cannot set the permissions of '%1': Operation not permitted.")
                 .arg(present ? Destination() : Partial()));
}

void TestFileDownloadFailures::DirectoryAtTheDestinationIsReported()
{
    QVERIFY(QDir().mkdir(Destination()));
    QCOMPARE(Outcome(*MakeDownload(content)),
             QString("610213: Cannot store '%1': a directory stands there.").arg(Destination()));
    QCOMPARE(server->RequestCount(), 0);
    QCOMPARE(Entries(), QStringList("f"));
}

void TestFileDownloadFailures::DirectoryAtThePartialIsReported()
{
    QVERIFY(QDir().mkdir(Partial()));
    QCOMPARE(Outcome(*MakeDownload(content)),
             QString("610211: Cannot write the partial file '%1': Is a directory.").arg(Partial()));
    QCOMPARE(Entries(), QStringList(".f.kx.part"));
}

void TestFileDownloadFailures::DirectoryThatCannotBeMadeIsReported()
{
    WriteFile(dir->filePath("file"), "in the way");
    const auto download = MakeDownload(content);
    download->SetFilePath(dir->filePath("file/sub/f"));
    QCOMPARE(Outcome(*download), QString("610210: Cannot make the directory '%1': Not a directory.")
                                     .arg(dir->filePath("file/sub")));
    QCOMPARE(server->RequestCount(), 0);
}

void TestFileDownloadFailures::DirectoryThatCannotBeWrittenIsReported()
{
    QVERIFY(QFile::setPermissions(dir->path(), QFileDevice::Permissions(0x5555)));
    {
        const kxtest::DroppedRights dropped;
        QCOMPARE(Outcome(*MakeDownload(content)),
                 QString("610211: Cannot write the partial file '%1': Permission denied.")
                     .arg(Partial()));
        const auto deeper = MakeDownload(content);
        deeper->SetFilePath(dir->filePath("sub/f"));
        QCOMPARE(Outcome(*deeper),
                 QString("610210: Cannot make the directory '%1': Permission denied.")
                     .arg(dir->filePath("sub")));
    }
    QVERIFY(QFile::setPermissions(dir->path(), QFileDevice::Permissions(0x7700)));
}

void TestFileDownloadFailures::FailedRenameIsReported()
{
    // A directory that comes to stand there while the file is under way.
    server->Enqueue("/f", Reply::StallAfter(3));
    const auto download = MakeDownload(content);
    connect(server.get(), &HttpTestServer::stalled, this, [this] {
        QVERIFY(QDir().mkdir(Destination()));
        server->ReleaseStalled();
    });
    QCOMPARE(Outcome(*download),
             QString("610213: Cannot store '%1': Is a directory.").arg(Destination()));
    // What has been checked already is of use when the directory is gone.
    QVERIFY(QDir().rmdir(Destination()));
    server->ClearRequests();
    QCOMPARE(Outcome(*MakeDownload(content)), "complete");
    QCOMPARE(server->RequestCount(), 0);
}

void TestFileDownloadFailures::SecondTransferToOneDestinationFails_data()
{
    QTest::addColumn<bool>("throughLink");
    QTest::newRow("same path") << false;
    QTest::newRow("through a link to the directory") << true;
}

void TestFileDownloadFailures::SecondTransferToOneDestinationFails()
{
    QFETCH(bool, throughLink);
    server->Enqueue("/f", Reply::StallAfter(3));
    const auto first = MakeDownload(content);
    QSignalSpy complete(first.get(), SIGNAL(complete()));
    QVERIFY(first->StartDownload());
    QTRY_COMPARE_WITH_TIMEOUT(first->BytesReceived(), quint64(3), patience);
    const QTemporaryDir other;
    QVERIFY(QFile::link(dir->path(), other.filePath("link")));
    const auto second = MakeDownload(content);
    const QString path = throughLink ? other.filePath("link/f") : Destination();
    second->SetFilePath(path);
    QCOMPARE(Outcome(*second),
             QString("610214: Cannot download to '%1': another transfer is writing it.").arg(path));
    QCOMPARE(Contents(Partial()), content.left(3));
    server->ReleaseStalled();
    QVERIFY(complete.wait(patience));
    QCOMPARE(Contents(Destination()), content);
    QCOMPARE(server->RequestCount(), 1);
}

void TestFileDownloadFailures::PartialFileOfAnotherProcessIsRespected()
{
    WriteFile(Partial(), content.left(3));
    // A lock of a descriptor of its own is what another process has.
    const int fd = open(QFile::encodeName(Partial()), O_RDWR | O_CLOEXEC);
    QVERIFY(fd >= 0);
    QCOMPARE(flock(fd, LOCK_EX), 0);
    QCOMPARE(Outcome(*MakeDownload(content)),
             QString("610214: Cannot download to '%1': another process is writing '%2'.")
                 .arg(Destination(), Partial()));
    QCOMPARE(Contents(Partial()), content.left(3));
    close(fd);
    QCOMPARE(Outcome(*MakeDownload(content)), "complete");
}

QTEST_GUILESS_MAIN(TestFileDownloadFailures)
#include "tst_filedownload_failures.moc"
