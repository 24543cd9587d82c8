#include "downloadtest.h"

#include <sys/stat.h>
#include <unistd.h>

using namespace common;
using common::http::IFileDownload;
using kxtest::HttpTestServer;
using kxtest::Reply;
using namespace kxtest::download;

// The large files here make the thread sanitizer forget the stacks that its suppressions look at,
// unless it keeps a longer history. Nobody else calls this.
extern "C" const char* __tsan_default_options()
{
    return "history_size=7";
}

/** Downloads that succeed, and what they leave on the disk. */
class TestFileDownload : public DownloadTest
{
    Q_OBJECT
private Q_SLOTS:
    void ShippedValuesAreWhatIsDocumented();
    void NullManagerGivesNoDownload();
    void SettingsAreKept();
    void StartIsRefused_data();
    void StartIsRefused();
    void FileIsStored_data();
    void FileIsStored();
    void RequestAsksForPlainBytes();
    void MissingDirectoriesAreMade();
    void NamesOfEveryKindAreStored_data();
    void NamesOfEveryKindAreStored();
    void PartialNamesAreHiddenAndFit_data();
    void PartialNamesAreHiddenAndFit();
    void PartialNamesOfBrokenTextFit();
    void WhatStandsAtTheDestinationIsReplaced_data();
    void WhatStandsAtTheDestinationIsReplaced();
    void PermissionsAreApplied_data();
    void PermissionsAreApplied();
    void PresentFileIsNotFetched();
    void PresentFileIsFetchedUnlessRight_data();
    void PresentFileIsFetchedUnlessRight();
    void SharedWorkerEndsWithTheLastTransfer();
    void EventLoopRunsWhileTheWorkerIsHeld();
    void HeldWorkerHoldsTheServerBack();
    void HeldWorkerIsNoTimeout();
    void LargeFileIsStored();
    void ManySmallFilesAreStored();
    void DeletionIsFineAtEachMoment_data();
    void DeletionIsFineAtEachMoment();
    void NewDownloadOfTheSameFileFromInsideTheSignal();
};

void TestFileDownload::ShippedValuesAreWhatIsDocumented()
{
    http::Tuning() = http::TransferTuning();
    QCOMPARE(http::PauseAfterAttempt(1), 500);
    QCOMPARE(http::PauseAfterAttempt(2), 1000);
    QCOMPARE(http::PauseAfterAttempt(100), 8000);
    QCOMPARE(http::Tuning().timeoutUnitMs, 1000);
    const auto download = MakeDownload("content");
    QCOMPARE(download->Option(), 3);
    QCOMPARE(download->Timeout(), 30);
    QCOMPARE(download->Attempt(), 0);
    QCOMPARE(download->BytesReceived(), quint64(0));
    QVERIFY(!download->IsRunning());
}

void TestFileDownload::NullManagerGivesNoDownload()
{
    QVERIFY(!http::CreateFileDownload(nullptr, this));
    QObject parent;
    IFileDownload* owned = http::CreateFileDownload(manager.get(), &parent);
    QCOMPARE(owned->parent(), &parent);
    QCOMPARE(owned->Manager(), manager.get());
}

void TestFileDownload::SettingsAreKept()
{
    const auto download = MakeDownload("content");
    QCOMPARE(download->Url(), server->Url("/f"));
    QCOMPARE(download->FilePath(), Destination());
    QCOMPARE(download->FileSize(), quint64(7));
    QCOMPARE(download->FileMD5(), DigestOf("content"));
    download->SetFilePermissions(QFileDevice::ReadOwner);
    QCOMPARE(download->FilePermissions(), QFileDevice::ReadOwner);
}

void TestFileDownload::StartIsRefused_data()
{
    QTest::addColumn<QUrl>("url");
    QTest::addColumn<QString>("path");
    const QString path = "/nonexistent/f";
    QTest::newRow("no URL") << QUrl() << path;
    QTest::newRow("invalid URL") << QUrl("http://[x") << path;
    QTest::newRow("relative URL") << QUrl("f") << path;
    QTest::newRow("file URL") << QUrl("file:///etc/passwd") << path;
    QTest::newRow("ftp URL") << QUrl("ftp://127.0.0.1/f") << path;
    QTest::newRow("no path") << QUrl("http://127.0.0.1/f") << QString();
    QTest::newRow("path of a directory") << QUrl("http://127.0.0.1/f") << "/nonexistent/";
    QTest::newRow("path with a null")
        << QUrl("http://127.0.0.1/f") << QString("/x/a") + QChar(u'\0') + "b";
}

void TestFileDownload::StartIsRefused()
{
    QFETCH(QUrl, url);
    QFETCH(QString, path);
    const auto download = MakeDownload("content");
    QSignalSpy failed(download.get(), SIGNAL(failed(int, const QString&)));
    download->SetUrl(url);
    download->SetFilePath(path);
    QVERIFY(!download->StartDownload());
    QVERIFY(!download->IsRunning());
    QCOMPARE(failed.size(), 0);
    // Refused is not started.
    download->SetUrl(server->Url("/f"));
    download->SetFilePath(Destination());
    QCOMPARE(Outcome(*download), "complete");
    QVERIFY(!download->StartDownload());
}

void TestFileDownload::FileIsStored_data()
{
    QTest::addColumn<qint64>("size");
    QTest::addColumn<Reply>("reply");
    for (const qint64 size : {0, 1, 1000, 262144, 3000001}) {
        QTest::addRow("%lld bytes", size) << size << Reply();
        QTest::addRow("%lld bytes chunked", size) << size << Reply::Chunked();
        QTest::addRow("%lld bytes until close", size) << size << Reply::UntilClose();
    }
    QTest::newRow("redirected") << qint64(10) << Reply::Redirect("/other");
    // The end never comes, but all bytes do.
    QTest::newRow("chunked without end") << qint64(10) << Reply::ChunkedWithoutEnd();
}

void TestFileDownload::FileIsStored()
{
    QFETCH(qint64, size);
    QFETCH(Reply, reply);
    const QByteArray content = HttpTestServer::GeneratedBytes(0, size);
    server->SetBody("/other", content);
    server->SetDefaultReply("/f", reply);
    const auto download = MakeDownload(content);
    QCOMPARE(Outcome(*download), "complete");
    QVERIFY(Contents(Destination()) == content);
    QCOMPARE(Entries(), QStringList("f"));
    QCOMPARE(download->BytesReceived(), quint64(size));
    QCOMPARE(download->Attempt(), 1);
    QVERIFY(!download->IsRunning());
}

void TestFileDownload::RequestAsksForPlainBytes()
{
    const auto download = MakeDownload("content");
    download->SetFileMD5(DigestOf("content").toUpper());
    QCOMPARE(Outcome(*download), "complete");
    const kxtest::Request request = server->Requests().first();
    QCOMPARE(request.method, QByteArray("GET"));
    QCOMPARE(request.Header("Accept-Encoding"), QByteArray("identity"));
    QVERIFY(!request.HasHeader("Range"));
    QVERIFY(!request.HasHeader("If-Range"));
}

void TestFileDownload::MissingDirectoriesAreMade()
{
    const QString path = dir->filePath("some/new dir/f");
    const auto download = MakeDownload("content");
    download->SetFilePath(path);
    QCOMPARE(Outcome(*download), "complete");
    QCOMPARE(Contents(path), QByteArray("content"));
}

void TestFileDownload::NamesOfEveryKindAreStored_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("space") << "a b";
    QTest::newRow("not ASCII") << QString::fromUtf8("gr\xc3\xbc\xc3\x9f\xe2\x82\xac");
    QTest::newRow("URL characters") << "a%41#b?c";
    QTest::newRow("backslash") << "a\\b";
    QTest::newRow("hidden") << ".hidden";
    QTest::newRow("246 bytes") << QString(246, 'n');
    QTest::newRow("247 bytes") << QString(247, 'n');
    QTest::newRow("255 bytes") << QString(255, 'n');
    QTest::newRow("254 bytes in 127 characters") << QString(127, QChar(0xfc));
}

void TestFileDownload::NamesOfEveryKindAreStored()
{
    QFETCH(QString, name);
    const QString path = dir->filePath(name);
    server->SetBody('/' + name, "content");
    server->SetHandler('/' + name, [](const kxtest::Request& request) {
        return request.HasHeader("Range") ? Reply() : Reply::TruncateAfter(3);
    });
    const auto download = MakeDownload("content");
    download->SetUrl(server->Url('/' + name));
    download->SetFilePath(path);
    QCOMPARE(Outcome(*download), "complete");
    QCOMPARE(Contents(path), QByteArray("content"));
    QCOMPARE(Entries(), QStringList(name));
    // The partial file was resumed, so it had its name through both attempts.
    QCOMPARE(server->Requests().last().Header("Range"), QByteArray("bytes=3-"));
}

void TestFileDownload::PartialNamesAreHiddenAndFit_data()
{
    QTest::addColumn<QString>("destination");
    QTest::addColumn<QString>("partial");
    QTest::newRow("plain") << "/d/name"
                           << "/d/.name.kx.part";
    QTest::newRow("relative") << "name"
                              << ".name.kx.part";
    QTest::newRow("in the root") << "/name"
                                 << "/.name.kx.part";
    QTest::newRow("hidden") << "/d/.name"
                            << "/d/..name.kx.part";
    QTest::newRow("longest that is kept")
        << "/d/" + QString(246, 'n') << "/d/." + QString(246, 'n') + ".kx.part";
    QTest::newRow("cut") << "/d/" + QString(247, 'n') << QString();
    QTest::newRow("cut between characters") << "/d/" + QString(127, QChar(0xfc)) << QString();
    QTest::newRow("cut between surrogates")
        << "/d/a" + QString::fromUtf8("\xf0\x9f\x98\x80").repeated(62) << QString();
}

void TestFileDownload::PartialNamesAreHiddenAndFit()
{
    QFETCH(QString, destination);
    QFETCH(QString, partial);
    const QString path = http::PartialFilePath(destination);
    if (!partial.isEmpty())
        QCOMPARE(path, partial);
    const QString name = path.mid(path.lastIndexOf('/') + 1);
    QVERIFY(name.startsWith('.') && name.endsWith(".kx.part"));
    QVERIFY2(name.toUtf8().size() <= 255, qPrintable(name));
    QCOMPARE(QString::fromUtf8(name.toUtf8()), name);
    QVERIFY(http::IsPartialFileName(name));
    // Names with a common beginning keep apart.
    QVERIFY(http::PartialFilePath(destination + 'x') != path);
    QVERIFY(!http::IsPartialFileName("name.kx.part"));
    QVERIFY(!http::IsPartialFileName(".kx.part"));
    QVERIFY(!http::IsPartialFileName(".name.kx.part2"));
    QVERIFY(!http::IsPartialFileName(destination));
}

// Half of a surrogate pair is a byte to UTF-8, a question mark, and three on the disk.
void TestFileDownload::PartialNamesOfBrokenTextFit()
{
    for (const int count : {83, 120, 246, 300}) {
        const QString name = http::PartialFilePath(QString(count, QChar(0xdc80)));
        QVERIFY(QFile::encodeName(name).size() <= 255);
        QVERIFY(http::IsPartialFileName(name));
    }
}

void TestFileDownload::WhatStandsAtTheDestinationIsReplaced_data()
{
    QTest::addColumn<QString>("kind");
    for (const char* const kind : {"file", "file of that size", "link", "dangling link", "fifo"})
        QTest::newRow(kind) << kind;
}

void TestFileDownload::WhatStandsAtTheDestinationIsReplaced()
{
    QFETCH(QString, kind);
    const QString outside = dir->filePath("outside");
    if (kind == "file")
        WriteFile(Destination(), "older and longer");
    else if (kind == "file of that size")
        WriteFile(Destination(), "CONTENT");
    else if (kind == "fifo")
        QCOMPARE(mkfifo(QFile::encodeName(Destination()), 0600), 0);
    else
        QVERIFY(QFile::link(outside, Destination()));
    if (kind == "link")
        WriteFile(outside, "content"); // even if what it points to is right
    QCOMPARE(Outcome(*MakeDownload("content")), "complete");
    QCOMPARE(server->RequestCount(), 1);
    QVERIFY(!QFileInfo(Destination()).isSymLink());
    QCOMPARE(Contents(Destination()), QByteArray("content"));
    QCOMPARE(QFile::exists(outside), kind == "link");
}

void TestFileDownload::PermissionsAreApplied_data()
{
    QTest::addColumn<int>("permissions");
    QTest::addColumn<uint>("mode");
    QTest::newRow("none: those of a new file") << 0 << 0640u;
    QTest::newRow("executable") << 0x7755 << 0755u;
    QTest::newRow("read only") << 0x4444 << 0444u;
    QTest::newRow("wider than the mask") << 0x6666 << 0666u;
    QTest::newRow("of the current user") << 0x0700 << 0700u;
}

void TestFileDownload::PermissionsAreApplied()
{
    QFETCH(int, permissions);
    QFETCH(uint, mode);
    const mode_t mask = umask(027);
    const auto download = MakeDownload("content");
    download->SetFilePermissions(QFileDevice::Permissions(permissions));
    const QString outcome = Outcome(*download);
    umask(mask);
    QCOMPARE(outcome, "complete");
    QCOMPARE(ModeOf(Destination()), mode);
}

void TestFileDownload::PresentFileIsNotFetched()
{
    WriteFile(Destination(), "content");
    WriteFile(Partial(), "stale");
    QVERIFY(QFile::setPermissions(Destination(), QFileDevice::ReadOwner | QFileDevice::WriteOwner));
    const auto download = MakeDownload("content");
    download->SetFileMD5(DigestOf("content").toUpper());
    download->SetFilePermissions(QFileDevice::Permissions(0x7755));
    http::HoldTransferWorker(true);
    QSignalSpy complete(download.get(), SIGNAL(complete()));
    QVERIFY(download->StartDownload());
    QVERIFY(download->IsRunning());
    QCOMPARE(complete.size(), 0);
    http::HoldTransferWorker(false);
    QVERIFY(complete.wait(patience));
    QCOMPARE(server->RequestCount(), 0);
    QCOMPARE(ModeOf(Destination()), 0755u);
    QCOMPARE(Entries(), QStringList("f"));
    QCOMPARE(download->BytesReceived(), quint64(7));
}

void TestFileDownload::PresentFileIsFetchedUnlessRight_data()
{
    QTest::addColumn<QByteArray>("present");
    QTest::addColumn<bool>("digest");
    QTest::newRow("shorter") << QByteArray("conten") << true;
    QTest::newRow("longer") << QByteArray("content+") << true;
    QTest::newRow("other digest") << QByteArray("Content") << true;
    QTest::newRow("nothing to compare with") << QByteArray("content") << false;
}

void TestFileDownload::PresentFileIsFetchedUnlessRight()
{
    QFETCH(QByteArray, present);
    QFETCH(bool, digest);
    WriteFile(Destination(), present);
    const auto download = MakeDownload("content");
    if (!digest)
        download->SetFileMD5(QString());
    QCOMPARE(Outcome(*download), "complete");
    QCOMPARE(server->RequestCount(), 1);
    QCOMPARE(Contents(Destination()), QByteArray("content"));
}

void TestFileDownload::SharedWorkerEndsWithTheLastTransfer()
{
    QCOMPARE(http::TransferWorkerCount(), 0);
    server->SetDefaultReply("/f", Reply::Hold());
    std::vector<std::unique_ptr<IFileDownload>> downloads;
    for (int i = 0; i < 4; ++i) {
        downloads.push_back(MakeDownload("content"));
        downloads.back()->SetFilePath(dir->filePath(QString::number(i)));
        QVERIFY(downloads.back()->StartDownload());
        QCOMPARE(http::TransferWorkerCount(), 1);
    }
    downloads.resize(1);
    QCOMPARE(http::TransferWorkerCount(), 1);
    downloads.clear();
    QCOMPARE(http::TransferWorkerCount(), 0);
}

void TestFileDownload::EventLoopRunsWhileTheWorkerIsHeld()
{
    const auto download = MakeDownload("content");
    QSignalSpy complete(download.get(), SIGNAL(complete()));
    http::HoldTransferWorker(true);
    QVERIFY(download->StartDownload());
    kxtest::LoopTicker ticker;
    QTRY_VERIFY_WITH_TIMEOUT(ticker.Ticks() >= 100, patience);
    QCOMPARE(complete.size(), 0);
    QVERIFY(download->IsRunning());
    http::HoldTransferWorker(false);
    QVERIFY(complete.wait(patience));
}

void TestFileDownload::HeldWorkerHoldsTheServerBack()
{
    const qint64 size = 256 * 1024 * 1024;
    bodySet = true;
    server->SetGeneratedBody("/f", size);
    const auto download = MakeDownload("content");
    download->SetFileSize(quint64(size));
    download->SetFileMD5(QString());
    QSignalSpy complete(download.get(), SIGNAL(complete()));
    QVERIFY(download->StartDownload());
    QTRY_VERIFY_WITH_TIMEOUT(download->BytesReceived() > 0, patience);
    http::HoldTransferWorker(true);
    qint64 sent = -1;
    while (sent != server->BytesSent()) {
        sent = server->BytesSent();
        kxtest::PassTimersOf(300);
    }
    // What is neither written nor waiting at the server: in this process, or in the system's
    // buffers of the two sockets, which make the larger part of it.
    const qint64 underWay = sent - qint64(download->BytesReceived());
    QVERIFY2(underWay < 24 * 1024 * 1024, qPrintable(QString::number(underWay)));
    QVERIFY(sent < size);
    http::HoldTransferWorker(false);
    QVERIFY(complete.wait(4 * patience));
    QCOMPARE(QFileInfo(Destination()).size(), size);
}

void TestFileDownload::HeldWorkerIsNoTimeout()
{
    http::Tuning().timeoutUnitMs = 20;
    const qint64 size = 32 * 1024 * 1024;
    bodySet = true;
    server->SetGeneratedBody("/f", size);
    const auto download = MakeDownload("content");
    download->SetFileSize(quint64(size));
    download->SetFileMD5(QString());
    download->SetTimeout(10);
    download->SetOption(1);
    QSignalSpy complete(download.get(), SIGNAL(complete()));
    QSignalSpy failed(download.get(), SIGNAL(failed(int, const QString&)));
    connect(server.get(), &HttpTestServer::requestReceived, this,
            [] { http::HoldTransferWorker(true); });
    QVERIFY(download->StartDownload());
    QTRY_VERIFY_WITH_TIMEOUT(server->RequestCount() == 1, patience);
    kxtest::PassTimersOf(1000); // five times the timeout
    QCOMPARE(failed.size(), 0);
    QCOMPARE(complete.size(), 0);
    http::HoldTransferWorker(false);
    QVERIFY(complete.wait(patience));
}

void TestFileDownload::LargeFileIsStored()
{
    const qint64 size = 40 * 1024 * 1024 + 7;
    const QByteArray content = HttpTestServer::GeneratedBytes(0, size);
    bodySet = true;
    server->SetGeneratedBody("/f", size);
    const auto download = MakeDownload("content");
    FaultUntilAttempt(*download, 2, Reply::TruncateAfter(30 * 1024 * 1024));
    download->SetFileSize(quint64(size));
    download->SetFileMD5(DigestOf(content));
    QCOMPARE(Outcome(*download), "complete");
    QVERIFY(Contents(Destination()) == content);
    QCOMPARE(download->Attempt(), 2);
    // Of what was under way when the connection closed, a little may be lost, and no more.
    const QByteArray range = server->Requests().last().Header("Range");
    QVERIFY2(range.startsWith("bytes="), range.constData());
    QVERIFY2(range.mid(6).chopped(1).toLongLong() > 15 * 1024 * 1024, range.constData());
}

void TestFileDownload::ManySmallFilesAreStored()
{
    const int count = 200;
    int done = 0;
    QStringList names;
    std::vector<std::unique_ptr<IFileDownload>> downloads;
    for (int i = 0; i < count; ++i) {
        const QString name = QString::number(i);
        names += name;
        const QByteArray content = HttpTestServer::GeneratedBytes(i, 10 * i);
        server->SetBody('/' + name, content);
        auto download = MakeDownload(content);
        download->SetUrl(server->Url('/' + name));
        download->SetFilePath(dir->filePath(name));
        connect(download.get(), &IFileDownload::complete, this, [&] { ++done; });
        QVERIFY(download->StartDownload());
        downloads.push_back(std::move(download));
    }
    QTRY_COMPARE_WITH_TIMEOUT(done, count, patience);
    QCOMPARE(Entries().size(), count);
    for (int i = 0; i < count; ++i)
        QVERIFY(Contents(dir->filePath(names.at(i))) == HttpTestServer::GeneratedBytes(i, 10 * i));
}

void TestFileDownload::DeletionIsFineAtEachMoment_data()
{
    QTest::addColumn<QString>("moment");
    QTest::addColumn<QStringList>("left");
    const QStringList nothing;
    QTest::newRow("before the start") << "" << nothing;
    QTest::newRow("after the start") << "start" << nothing;
    QTest::newRow("while the worker is held") << "held" << nothing;
    QTest::newRow("before the reply") << "hold" << nothing;
    QTest::newRow("inside the body") << "stall" << QStringList(".f.kx.part");
    QTest::newRow("between attempts") << "pause" << QStringList(".f.kx.part");
    QTest::newRow("in complete") << "in complete" << QStringList("f");
    QTest::newRow("in failed") << "in failed" << nothing;
}

void TestFileDownload::DeletionIsFineAtEachMoment()
{
    QFETCH(QString, moment);
    QFETCH(QStringList, left);
    auto download = MakeDownload("content");
    int outcomes = 0;
    const auto end = [&] {
        ++outcomes;
        download.reset();
    };
    connect(download.get(), &IFileDownload::complete, this, end);
    connect(download.get(), &IFileDownload::failed, this, end);
    if (moment == "held")
        http::HoldTransferWorker(true);
    else if (moment == "hold")
        server->Enqueue("/f", Reply::Hold());
    else if (moment == "stall")
        server->Enqueue("/f", Reply::StallAfter(3));
    else if (moment == "pause")
        FaultUntilAttempt(*download, 2, Reply::TruncateAfter(3));
    else if (moment == "in failed")
        server->Enqueue("/f", Reply::Status(404));
    if (moment == "pause")
        http::Tuning().firstPauseMs = http::Tuning().longestPauseMs = 600000;
    if (!moment.isEmpty())
        QVERIFY(download->StartDownload());
    if (moment.startsWith("in ")) {
        QTRY_VERIFY_WITH_TIMEOUT(!download, patience);
    } else if (moment == "hold") {
        QTRY_COMPARE_WITH_TIMEOUT(server->StalledCount(), 1, patience);
    } else if (moment == "stall" || moment == "pause") {
        QTRY_COMPARE_WITH_TIMEOUT(download->BytesReceived(), quint64(3), patience);
    }
    download.reset();
    server->SetHandler("/f", nullptr);
    http::HoldTransferWorker(false);
    QCOMPARE(http::TransferWorkerCount(), 0);
    QCOMPARE(Entries(), left);
    QTRY_COMPARE_WITH_TIMEOUT(server->StalledCount(), 0, patience);
    // What is left is of use to the next one.
    http::Tuning().firstPauseMs = 1;
    QCOMPARE(Outcome(*MakeDownload("content")), "complete");
    QCOMPARE(outcomes, moment.startsWith("in ") ? 1 : 0);
    if (left == QStringList(".f.kx.part"))
        QCOMPARE(server->Requests().last().Header("Range"), QByteArray("bytes=3-"));
}

void TestFileDownload::NewDownloadOfTheSameFileFromInsideTheSignal()
{
    server->Enqueue("/f", Reply::Status(404));
    auto first = MakeDownload("content");
    auto second = MakeDownload("content");
    QString outcome;
    connect(first.get(), &IFileDownload::failed, this, [&] {
        QVERIFY(!first->IsRunning());
        QVERIFY(second->StartDownload());
    });
    connect(second.get(), &IFileDownload::complete, this, [&] { outcome = "complete"; });
    connect(second.get(), &IFileDownload::failed, this,
            [&](int, const QString& text) { outcome = text; });
    QVERIFY(first->StartDownload());
    QTRY_VERIFY_WITH_TIMEOUT(!outcome.isEmpty(), patience);
    QCOMPARE(outcome, "complete");
}

QTEST_GUILESS_MAIN(TestFileDownload)
#include "tst_filedownload.moc"
