#include "downloadtest.h"

#include <sys/stat.h>
#include <unistd.h>

using namespace common;
using common::http::IFileDownload;
using kxtest::HttpTestServer;
using kxtest::Reply;
using namespace kxtest::download;

namespace {
const QByteArray content = "0123456789abcdefghij";
} // namespace

/** Downloads that go on where something stopped them, or find out that they cannot. */
class TestFileDownloadResume : public DownloadTest
{
    Q_OBJECT
private Q_SLOTS:
    void CutTransferGoesOnWhereItStopped_data();
    void CutTransferGoesOnWhereItStopped();
    void EveryAttemptAddsItsPart();
    void FetchedBytesAreThoseOfAllAttempts();
    void ChangedFileIsFetchedAnew();
    void ServerWithoutRangesIsReadFromTheStart();
    void WrongAnswerToARangeIsFetchedOnceFromTheStart_data();
    void WrongAnswerToARangeIsFetchedOnceFromTheStart();
    void ResumedFileThatIsWrongIsFetchedOnce();
    void RefetchThatIsCutStartsOverWithoutRanges();
    void WithoutDigestOnlyAValidatorResumes_data();
    void WithoutDigestOnlyAValidatorResumes();
    void EarlierPartialIsResumed_data();
    void EarlierPartialIsResumed();
    void WholeEarlierPartialNeedsNoServer();
    void WrongEarlierPartialIsThrownAway_data();
    void WrongEarlierPartialIsThrownAway();
    void WhatIsNoPartialFileIsReplaced_data();
    void WhatIsNoPartialFileIsReplaced();
};

void TestFileDownloadResume::CutTransferGoesOnWhereItStopped_data()
{
    QTest::addColumn<Reply>("fault");
    QTest::addColumn<QByteArray>("etag");
    QTest::addColumn<QByteArray>("date");
    QTest::addColumn<QByteArray>("validator");
    const QByteArray day = "Sat, 01 Feb 2020 00:00:00 GMT";
    const Reply cut = Reply::TruncateAfter(8);
    QTest::newRow("etag") << cut << QByteArray("\"one\"") << QByteArray() << QByteArray("\"one\"");
    QTest::newRow("etag and date") << cut << QByteArray("\"one\"") << day << QByteArray("\"one\"");
    QTest::newRow("weak etag") << cut << QByteArray("W/\"one\"") << QByteArray() << QByteArray();
    QTest::newRow("weak etag and date") << cut << QByteArray("W/\"one\"") << day << day;
    QTest::newRow("date") << cut << QByteArray() << day << day;
    QTest::newRow("nothing") << cut << QByteArray() << QByteArray() << QByteArray();
    QTest::newRow("chunked without end") << Reply::ChunkedWithoutEnd(8) << QByteArray("\"one\"")
                                         << QByteArray() << QByteArray("\"one\"");
    Reply unframed = Reply::TruncateAfter(8);
    unframed.framing = Reply::Framing::UntilClose;
    QTest::newRow("ended by the connection")
        << unframed << QByteArray() << QByteArray() << QByteArray();
}

void TestFileDownloadResume::CutTransferGoesOnWhereItStopped()
{
    QFETCH(Reply, fault);
    QFETCH(QByteArray, etag);
    QFETCH(QByteArray, date);
    server->SetETag("/f", etag);
    server->SetLastModified("/f", date);
    const auto download = MakeDownload(content);
    FaultUntilAttempt(*download, 2, fault);
    QCOMPARE(Outcome(*download), "complete");
    QCOMPARE(Contents(Destination()), content);
    QCOMPARE(Entries(), QStringList("f"));
    QCOMPARE(download->Attempt(), 2);
    QCOMPARE(Ranges(), QByteArrayList({"", "bytes=8-"}));
    const kxtest::Request resumed = server->Requests().last();
    QTEST(resumed.Header("If-Range"), "validator");
    QCOMPARE(resumed.Header("Accept-Encoding"), QByteArray("identity"));
}

void TestFileDownloadResume::EveryAttemptAddsItsPart()
{
    server->SetETag("/f", "\"one\"");
    const auto download = MakeDownload(content);
    FaultUntilAttempt(*download, 5, Reply::TruncateAfter(4));
    download->SetOption(5);
    QCOMPARE(Outcome(*download), "complete");
    QCOMPARE(Contents(Destination()), content);
    QCOMPARE(Ranges(), QByteArrayList({"", "bytes=4-", "bytes=8-", "bytes=12-", "bytes=16-"}));
}

void TestFileDownloadResume::FetchedBytesAreThoseOfAllAttempts()
{
    server->SetRangeSupport("/f", false);
    WriteFile(Partial(), content.left(3));
    const auto download = MakeDownload(content);
    QCOMPARE(http::BytesFetched(download.get()), 0u);
    FaultUntilAttempt(*download, 2, Reply::TruncateAfter(8));
    QCOMPARE(Outcome(*download), "complete");
    QCOMPARE(http::BytesFetched(download.get()), quint64(8 + content.size()));
    QCOMPARE(download->BytesReceived(), quint64(content.size()));

    // It is there now, and nothing comes.
    const auto again = MakeDownload(content);
    QCOMPARE(Outcome(*again), "complete");
    QCOMPARE(http::BytesFetched(again.get()), 0u);
    QCOMPARE(again->BytesReceived(), quint64(content.size()));
    QCOMPARE(http::BytesFetched(nullptr), 0u);
}

void TestFileDownloadResume::ChangedFileIsFetchedAnew()
{
    // The publisher replaces the file between the attempts; only the new one has the digest.
    server->SetETag("/f", "\"old\"");
    bodySet = true;
    server->SetBody("/f", QByteArray("OLD CONTENT OF A FILE").left(content.size()));
    const auto download = MakeDownload(content);
    server->SetHandler("/f", [&](const kxtest::Request&) {
        if (download->Attempt() < 2)
            return Reply::TruncateAfter(8);
        server->SetETag("/f", "\"new\"");
        server->SetBody("/f", content);
        return Reply();
    });
    QCOMPARE(Outcome(*download), "complete");
    QCOMPARE(Contents(Destination()), content);
    QCOMPARE(Ranges(), QByteArrayList({"", "bytes=8-"}));
    QCOMPARE(server->Requests().last().Header("If-Range"), QByteArray("\"old\""));
}

void TestFileDownloadResume::ServerWithoutRangesIsReadFromTheStart()
{
    server->SetRangeSupport("/f", false);
    const auto download = MakeDownload(content);
    FaultUntilAttempt(*download, 2, Reply::TruncateAfter(8));
    QCOMPARE(Outcome(*download), "complete");
    QCOMPARE(Contents(Destination()), content);
    QCOMPARE(Ranges(), QByteArrayList({"", "bytes=8-"}));
    QCOMPARE(download->BytesReceived(), quint64(content.size()));
}

void TestFileDownloadResume::WrongAnswerToARangeIsFetchedOnceFromTheStart_data()
{
    QTest::addColumn<Reply>("answer");
    QTest::newRow("416") << Reply::Status(416);
    const auto part = [](const QByteArray& body, const QByteArray& range) {
        Reply reply = Reply::Body(body);
        reply.status = 206;
        if (!range.isEmpty())
            reply.headers.emplaceBack("Content-Range", range);
        return reply;
    };
    QTest::newRow("other begin") << part(content.mid(7), "bytes 7-19/20");
    QTest::newRow("other size") << part(content.mid(8), "bytes 8-19/21");
    QTest::newRow("no range told") << part(content.mid(8), "");
    QTest::newRow("rubbish told") << part(content.mid(8), "bytes x-y/z");
    QTest::newRow("too short a part") << part(content.mid(8, 3), "bytes 8-10/20");
    QTest::newRow("too long a part") << part(content.mid(8) + "more", "bytes 8-19/20");
    QTest::newRow("wrong bytes") << part("XXXXXXXXXXXX", "bytes 8-19/20");
    Reply longer = part(content.mid(8) + "more", "bytes 8-19/20");
    longer.framing = Reply::Framing::Chunked;
    QTest::newRow("too long a chunked part") << longer;
}

void TestFileDownloadResume::WrongAnswerToARangeIsFetchedOnceFromTheStart()
{
    QFETCH(Reply, answer);
    const auto download = MakeDownload(content);
    server->SetHandler("/f", [&](const kxtest::Request& request) {
        if (request.HasHeader("Range"))
            return answer;
        return download->Attempt() < 2 ? Reply::TruncateAfter(8) : Reply();
    });
    download->SetOption(2); // used up: the fetch from the start is no attempt
    QCOMPARE(Outcome(*download), "complete");
    QCOMPARE(Contents(Destination()), content);
    QCOMPARE(Ranges(), QByteArrayList({"", "bytes=8-", ""}));
    QCOMPARE(download->Attempt(), 2);
    const kxtest::Request last = server->Requests().last();
    QVERIFY(!last.HasHeader("Range") && !last.HasHeader("If-Range"));
    QCOMPARE(last.Header("Cache-Control"), QByteArray("no-cache"));
}

void TestFileDownloadResume::ResumedFileThatIsWrongIsFetchedOnce()
{
    // The server has another file than the manifest says, whatever is asked for.
    bodySet = true;
    server->SetBody("/f", QByteArray(content.size(), 'x'));
    WriteFile(Partial(), content.left(5));
    const auto download = MakeDownload(content);
    const QString outcome = Outcome(*download);
    QVERIFY2(outcome.startsWith("610209: "), qPrintable(outcome));
    QCOMPARE(server->RequestCount(), 2);
    QCOMPARE(Entries(), QStringList());
}

void TestFileDownloadResume::RefetchThatIsCutStartsOverWithoutRanges()
{
    // Answers every range with 416, and cuts the whole replies of two attempts.
    const auto download = MakeDownload(content);
    server->SetHandler("/f", [&](const kxtest::Request& request) {
        if (request.HasHeader("Range"))
            return Reply::Status(416);
        return download->Attempt() < 3 ? Reply::TruncateAfter(8) : Reply();
    });
    QCOMPARE(Outcome(*download), "complete");
    QCOMPARE(Contents(Destination()), content);
    QCOMPARE(download->Attempt(), 3);
    QCOMPARE(Ranges(), QByteArrayList({"", "bytes=8-", ""}));
}

void TestFileDownloadResume::WithoutDigestOnlyAValidatorResumes_data()
{
    QTest::addColumn<QByteArray>("etag");
    QTest::addColumn<QByteArray>("range");
    QTest::newRow("validator") << QByteArray("\"one\"") << QByteArray("bytes=8-");
    QTest::newRow("none") << QByteArray() << QByteArray();
}

void TestFileDownloadResume::WithoutDigestOnlyAValidatorResumes()
{
    QFETCH(QByteArray, etag);
    server->SetETag("/f", etag);
    WriteFile(Partial(), "of another file");
    const auto download = MakeDownload(content);
    download->SetFileMD5(QString());
    FaultUntilAttempt(*download, 2, Reply::TruncateAfter(8));
    QCOMPARE(Outcome(*download), "complete");
    QCOMPARE(Contents(Destination()), content);
    QVERIFY(!server->Requests().first().HasHeader("Range"));
    QTEST(server->Requests().last().Header("Range"), "range");
}

void TestFileDownloadResume::EarlierPartialIsResumed_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<bool>("ranges");
    for (const int size : {1, 8, 19}) {
        QTest::addRow("%d bytes", size) << size << true;
        QTest::addRow("%d bytes, server without ranges", size) << size << false;
    }
}

void TestFileDownloadResume::EarlierPartialIsResumed()
{
    QFETCH(int, size);
    QFETCH(bool, ranges);
    server->SetETag("/f", "\"one\"");
    server->SetRangeSupport("/f", ranges);
    WriteFile(Partial(), content.left(size));
    QCOMPARE(Outcome(*MakeDownload(content)), "complete");
    QCOMPARE(Contents(Destination()), content);
    QCOMPARE(Entries(), QStringList("f"));
    QCOMPARE(server->RequestCount(), 1);
    const kxtest::Request request = server->Requests().first();
    QCOMPARE(request.Header("Range"), "bytes=" + QByteArray::number(size) + "-");
    QVERIFY(!request.HasHeader("If-Range"));
}

void TestFileDownloadResume::WholeEarlierPartialNeedsNoServer()
{
    WriteFile(Partial(), content);
    const auto download = MakeDownload(content);
    download->SetFilePermissions(QFileDevice::Permissions(0x7755));
    QCOMPARE(Outcome(*download), "complete");
    QCOMPARE(server->RequestCount(), 0);
    QCOMPARE(Contents(Destination()), content);
    QCOMPARE(ModeOf(Destination()), 0755u);
    QCOMPARE(Entries(), QStringList("f"));
}

void TestFileDownloadResume::WrongEarlierPartialIsThrownAway_data()
{
    QTest::addColumn<QByteArray>("partial");
    QTest::addColumn<QByteArrayList>("ranges");
    QTest::newRow("empty") << QByteArray() << QByteArrayList({""});
    QTest::newRow("of another file") << QByteArray("another") << QByteArrayList({"bytes=7-", ""});
    QTest::newRow("whole, but wrong") << QByteArray(20, 'x') << QByteArrayList({""});
    QTest::newRow("longer than the file") << content + 'k' << QByteArrayList({""});
}

void TestFileDownloadResume::WrongEarlierPartialIsThrownAway()
{
    QFETCH(QByteArray, partial);
    QFETCH(QByteArrayList, ranges);
    WriteFile(Partial(), partial);
    const auto download = MakeDownload(content);
    download->SetOption(1);
    QCOMPARE(Outcome(*download), "complete");
    QCOMPARE(Contents(Destination()), content);
    QCOMPARE(Ranges(), ranges);
}

void TestFileDownloadResume::WhatIsNoPartialFileIsReplaced_data()
{
    QTest::addColumn<QString>("kind");
    for (const char* const kind : {"link", "dangling link", "hard link", "fifo"})
        QTest::newRow(kind) << kind;
}

void TestFileDownloadResume::WhatIsNoPartialFileIsReplaced()
{
    QFETCH(QString, kind);
    const QString outside = dir->filePath("outside");
    if (kind == "link" || kind == "hard link")
        WriteFile(outside, content.left(5)); // even if what it leads to could be resumed
    if (kind == "hard link")
        QCOMPARE(::link(QFile::encodeName(outside), QFile::encodeName(Partial())), 0);
    else if (kind == "fifo")
        QCOMPARE(mkfifo(QFile::encodeName(Partial()), 0600), 0);
    else
        QVERIFY(QFile::link(outside, Partial()));
    QCOMPARE(Outcome(*MakeDownload(content)), "complete");
    QCOMPARE(Contents(Destination()), content);
    QVERIFY(!server->Requests().first().HasHeader("Range"));
    if (kind.endsWith("link") && !kind.startsWith("dangling"))
        QCOMPARE(Contents(outside), content.left(5));
    else
        QVERIFY(!QFile::exists(outside));
    QVERIFY(!Entries().contains(".f.kx.part"));
}

QTEST_GUILESS_MAIN(TestFileDownloadResume)
#include "tst_filedownload_resume.moc"
