#include "fakeservices.h"
#include "logcapture.h"
#include "quietperiod.h"
#include "signaltrace.h"
#include "treebuilder.h"
#include "vtableindex.h"
#include "wiringguard.h"

#include <kxupdater/downloader.h>

#include <QDir>
#include <QNetworkAccessManager>
#include <QTest>

#include <memory>

using kxtest::FakeDownload;
using kxtest::FakeServices;
using updater::Downloader;
using updater::File;
using updater::FileList;

namespace {

constexpr int waitMs = 30000;

FileList Files(int count)
{
    FileList files;
    for (int i = 1; i <= count; ++i)
        files << File(QStringLiteral("file%1").arg(i), "abc", i, "-rw-r--r--", "");
    return files;
}

struct Fixture
{
    explicit Fixture(const FileList& files = {})
    {
        downloader->SetURL("http://h/base");
        downloader->SetDownloadPath("/download");
        if (!files.isEmpty())
            downloader->SetFiles(files);
        log.Clear();
    }

    static QStringList Running()
    {
        QStringList names;
        for (const FakeDownload* download : FakeServices::RunningDownloads())
            names << download->FilePath().section('/', -1);
        return names;
    }

    static void Complete(const QString& name)
    {
        for (FakeDownload* download : FakeServices::RunningDownloads()) {
            if (download->FilePath().endsWith('/' + name))
                return download->Complete();
        }
        qFatal("%s does not run", qPrintable(name));
    }

    static void Fail(const QString& name, int code, const QString& text)
    {
        for (FakeDownload* download : FakeServices::RunningDownloads()) {
            if (download->FilePath().endsWith('/' + name))
                return download->Fail(code, text);
        }
        qFatal("%s does not run", qPrintable(name));
    }

    QNetworkAccessManager manager;
    kxtest::LogCapture log;
    std::unique_ptr<Downloader> downloader = std::make_unique<Downloader>(&manager, nullptr);
    kxtest::SignalTrace trace{downloader.get()};
};

const char requestFailed[] = "failed(600500, Failed to create file download request.)";
const char aborted[] = "failed(600502, User abort download!)";

} // namespace

/** The parallel downloader, over scripted transfers. */
class TestDownloader : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        kxtest::FailOnWiringWarnings();
        FakeServices::Reset();
    }

    void ConstructionLogsTheDefault();
    void SettersAreLogged();
    void LimitIsFromOneToSixteen_data();
    void LimitIsFromOneToSixteen();
    void EmptyListIsStoredWithAWarning();
    void StartWithEmptyListIsTrueAndSilent();
    void TransferIsConfiguredInOrder();
    void SourceUrlJoinsBaseAndName_data();
    void SourceUrlJoinsBaseAndName();
    void DestinationJoinsPathAndName_data();
    void DestinationJoinsPathAndName();
    void FourTransfersRunAtOnceAndEachEndStartsTheNext();
    void TransfersStartInListOrder();
    void LimitCountsFromTheNextStartOfATransfer();
    void FinishedTransferIsDeletedAtOnce();
    void FailureIsPassedOnAndTheRestGoesOn();
    void FailureOfTheLastOneEndsWithoutComplete();
    void FailureBeforeTheLastCompletionCountsAsDone();
    void TransferThatCannotBeMadeFails();
    void TransferThatCannotBeStartedFails();
    void StuckFileIsTriedAgainAfterEachCompletion();
    void UnsafeNamesAreNeverStarted_data();
    void UnsafeNamesAreNeverStarted();
    void NamesThroughALinkAreNeverStarted();
    void AbortWithoutTransfersIsSilent();
    void AbortDeletesTransfersAndFailsOnce();
    void StartAfterAbortBeginsAnew();
    void DestructorAborts();
    void DestructorOfAnIdleOneIsSilent();
    void SlotsWithoutSenderAreTolerated();
    void DeletionInsideASignalIsSafe_data();
    void DeletionInsideASignalIsSafe();
    void AbortInsideASignalIsSafe_data();
    void AbortInsideASignalIsSafe();
    void StartInsideCompleteBeginsAnew();
    void WithoutManagerNothingStarts();
    void MessagesNameTheirFunction();
    void PublishedOrderIsKept();
};

void TestDownloader::ConstructionLogsTheDefault()
{
    kxtest::LogCapture log;
    QNetworkAccessManager manager;
    QObject parent;
    const auto* downloader = new Downloader(&manager, &parent);
    QCOMPARE(log.Lines(), QStringList{"updater.download 6 created, maximum downloads: 4."});
    QCOMPARE(log.Last().function, QString("updater::Downloader::Downloader"));
    QCOMPARE(downloader->parent(), &parent);
    QCOMPARE(downloader->MaxDownloads(), 4u);
    QCOMPARE(downloader->URL(), QString());
    QCOMPARE(downloader->DownloadPath(), QString());
    QVERIFY(downloader->GetFiles().isEmpty());
}

void TestDownloader::SettersAreLogged()
{
    Fixture fixture;
    fixture.downloader->SetURL("http://x");
    fixture.downloader->SetDownloadPath("/y");
    fixture.downloader->SetMaxDownloads(7);
    fixture.downloader->SetFiles(Files(2));
    QCOMPARE(fixture.log.Lines(), (QStringList{"updater.download 7 Setting URL 'http://x'.",
                                               "updater.download 7 Setting download path '/y'.",
                                               "updater.download 7 Setting maximum downloads to "
                                               ": 7."}));
    QCOMPARE(fixture.downloader->URL(), QString("http://x"));
    QCOMPARE(fixture.downloader->DownloadPath(), QString("/y"));
    QCOMPARE(fixture.downloader->GetFiles(), Files(2));
}

void TestDownloader::LimitIsFromOneToSixteen_data()
{
    QTest::addColumn<unsigned int>("asked");
    QTest::addColumn<unsigned int>("stored");

    QTest::newRow("0") << 0u << 4u;
    QTest::newRow("1") << 1u << 1u;
    QTest::newRow("4") << 4u << 4u;
    QTest::newRow("16") << 16u << 16u;
    QTest::newRow("17") << 17u << 4u;
    QTest::newRow("largest") << ~0u << 4u;
}

void TestDownloader::LimitIsFromOneToSixteen()
{
    QFETCH(unsigned int, asked);
    QFETCH(unsigned int, stored);
    Fixture fixture;
    fixture.downloader->SetMaxDownloads(16);
    fixture.log.Clear();
    fixture.downloader->SetMaxDownloads(asked);
    QCOMPARE(fixture.downloader->MaxDownloads(), stored);
    QStringList expected{
        QStringLiteral("updater.download 7 Setting maximum downloads to : %1.").arg(stored)};
    if (asked != stored)
        expected.prepend(QStringLiteral("updater.download 3 Can't set maximum downloads to : %1, "
                                        "reset to default value.")
                             .arg(asked));
    QCOMPARE(fixture.log.Lines(), expected);
}

void TestDownloader::EmptyListIsStoredWithAWarning()
{
    Fixture fixture(Files(3));
    fixture.downloader->SetFiles({});
    QVERIFY(fixture.downloader->GetFiles().isEmpty());
    QCOMPARE(fixture.log.Lines(), QStringList{"updater.download 4 Trying to set empty list of "
                                              "files to be download!"});
}

void TestDownloader::StartWithEmptyListIsTrueAndSilent()
{
    Fixture fixture;
    QVERIFY(fixture.downloader->Start());
    kxtest::PassTimersOf(20);
    QCOMPARE(fixture.trace.Lines(), QStringList{});
    QCOMPARE(fixture.log.Lines(),
             (QStringList{"updater.download 3 Trying to start with empty list of files!",
                          "updater.download 7 Sending download requests..."}));
    QCOMPARE(FakeServices::calls, QStringList{});
}

void TestDownloader::TransferIsConfiguredInOrder()
{
    Fixture fixture({File("bin/app", "ABCdef", 12345678901, "-rwxr-x---", "")});
    QVERIFY(fixture.downloader->Start());
    QCOMPARE(FakeServices::calls,
             (QStringList{"CreateFileDownload", "SetOption 3", "SetUrl http://h/base/bin/app",
                          "SetFilePath " + QDir::toNativeSeparators("/download/bin/app"),
                          "SetFileMD5 ABCdef", "SetFileSize 12345678901", "SetFilePermissions 7050",
                          "StartDownload 1"}));
    QCOMPARE(FakeServices::downloads.first()->parent(), fixture.downloader.get());
    QCOMPARE(FakeServices::downloads.first()->Manager(), &fixture.manager);
    QCOMPARE(fixture.log.Lines(),
             (QStringList{"updater.download 7 Sending download requests...",
                          "updater.download 6 Trying to start download file 'bin/app'..."}));
}

void TestDownloader::SourceUrlJoinsBaseAndName_data()
{
    QTest::addColumn<QString>("base");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("url");

    QTest::newRow("no slash") << "http://h/b"
                              << "a"
                              << "http://h/b/a";
    QTest::newRow("slash") << "http://h/b/"
                           << "a"
                           << "http://h/b/a";
    QTest::newRow("two slashes") << "http://h/b//"
                                 << "a"
                                 << "http://h/b//a";
    QTest::newRow("directories") << "http://h"
                                 << "x/y/z"
                                 << "http://h/x/y/z";
    QTest::newRow("blanks") << "http://h"
                            << "a b"
                            << "http://h/a%20b";
    QTest::newRow("not ASCII") << "http://h" << QString::fromUtf8("größe")
                               << "http://h/gr%C3%B6%C3%9Fe";
}

void TestDownloader::SourceUrlJoinsBaseAndName()
{
    QFETCH(QString, base);
    QFETCH(QString, name);
    QFETCH(QString, url);
    Fixture fixture({File(name, "", 1, "", "")});
    fixture.downloader->SetURL(base);
    fixture.downloader->Start();
    QCOMPARE(FakeServices::Calls("SetUrl"), QStringList{"SetUrl " + url});
}

void TestDownloader::DestinationJoinsPathAndName_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("destination");

    QTest::newRow("no separator") << "/d"
                                  << "/d/x/a";
    QTest::newRow("separator") << "/d/"
                               << "/d/x/a";
    QTest::newRow("root") << "/"
                          << "/x/a";
}

void TestDownloader::DestinationJoinsPathAndName()
{
    QFETCH(QString, path);
    QFETCH(QString, destination);
    Fixture fixture({File("x/a", "", 1, "", "")});
    fixture.downloader->SetDownloadPath(path);
    fixture.downloader->Start();
    QCOMPARE(FakeServices::Calls("SetFilePath"),
             QStringList{"SetFilePath " + QDir::toNativeSeparators(destination)});
}

void TestDownloader::FourTransfersRunAtOnceAndEachEndStartsTheNext()
{
    Fixture fixture(Files(10));
    fixture.downloader->Start();
    QCOMPARE(Fixture::Running(), (QStringList{"file1", "file2", "file3", "file4"}));
    QStringList expected;
    for (int done = 1; done <= 10; ++done) {
        Fixture::Complete(Fixture::Running().last());
        QCOMPARE(Fixture::Running().size(), qMin(4, 10 - done));
        expected << QStringLiteral("progress(%1, 10)").arg(done);
    }
    QCOMPARE(fixture.trace.Lines(), expected + QStringList{"complete()"});
    QCOMPARE(fixture.log.Lines().last(), QString("updater.download 6 Download complete!"));
    QCOMPARE(fixture.log.Count("updater.download 6 Download complete!"), 1);
}

void TestDownloader::TransfersStartInListOrder()
{
    Fixture fixture(Files(6));
    fixture.downloader->SetMaxDownloads(2);
    fixture.downloader->Start();
    QCOMPARE(Fixture::Running(), (QStringList{"file1", "file2"}));
    Fixture::Complete("file2");
    QCOMPARE(Fixture::Running(), (QStringList{"file1", "file3"}));
    Fixture::Complete("file1");
    QCOMPARE(Fixture::Running(), (QStringList{"file3", "file4"}));
}

void TestDownloader::LimitCountsFromTheNextStartOfATransfer()
{
    Fixture fixture(Files(8));
    fixture.downloader->Start();
    fixture.downloader->SetMaxDownloads(1);
    QCOMPARE(Fixture::Running().size(), 4);
    Fixture::Complete("file1");
    QCOMPARE(Fixture::Running().size(), 3);
    Fixture::Complete("file2");
    Fixture::Complete("file3");
    QCOMPARE(Fixture::Running(), QStringList{"file4"});
    Fixture::Complete("file4");
    QCOMPARE(Fixture::Running(), QStringList{"file5"});
    fixture.downloader->SetMaxDownloads(3);
    Fixture::Complete("file5");
    QCOMPARE(Fixture::Running(), (QStringList{"file6", "file7", "file8"}));
}

void TestDownloader::FinishedTransferIsDeletedAtOnce()
{
    Fixture fixture(Files(2));
    fixture.downloader->Start();
    fixture.trace.SetHook([](const QString& line) {
        if (line == "progress(1, 2)")
            QVERIFY(!FakeServices::downloads.first());
        else if (line == "failed(5, five)")
            QVERIFY(!FakeServices::downloads.last());
    });
    Fixture::Complete("file1");
    Fixture::Fail("file2", 5, "five");
    QCOMPARE(fixture.trace.Lines(), (QStringList{"progress(1, 2)", "failed(5, five)"}));
}

void TestDownloader::FailureIsPassedOnAndTheRestGoesOn()
{
    Fixture fixture(Files(6));
    fixture.downloader->Start();
    Fixture::Fail("file2", 610202, "404");
    // No new transfer starts from a failure.
    QCOMPARE(Fixture::Running(), (QStringList{"file1", "file3", "file4"}));
    Fixture::Complete("file1");
    QCOMPARE(Fixture::Running(), (QStringList{"file3", "file4", "file5", "file6"}));
    for (const char* name : {"file3", "file4", "file5", "file6"})
        Fixture::Complete(name);
    QCOMPARE(fixture.trace.Lines(),
             (QStringList{"failed(610202, 404)", "progress(2, 6)", "progress(3, 6)",
                          "progress(4, 6)", "progress(5, 6)", "progress(6, 6)", "complete()"}));
    QCOMPARE(fixture.downloader->GetFiles(), Files(6));
}

void TestDownloader::FailureOfTheLastOneEndsWithoutComplete()
{
    Fixture fixture(Files(2));
    fixture.downloader->Start();
    Fixture::Complete("file1");
    Fixture::Fail("file2", 7, "seven");
    kxtest::PassTimersOf(20);
    QCOMPARE(fixture.trace.Lines(), (QStringList{"progress(1, 2)", "failed(7, seven)"}));
}

void TestDownloader::FailureBeforeTheLastCompletionCountsAsDone()
{
    Fixture fixture(Files(2));
    fixture.downloader->Start();
    Fixture::Fail("file1", 7, "seven");
    Fixture::Complete("file2");
    QCOMPARE(fixture.trace.Lines(),
             (QStringList{"failed(7, seven)", "progress(2, 2)", "complete()"}));
}

void TestDownloader::TransferThatCannotBeMadeFails()
{
    Fixture fixture(Files(3));
    FakeServices::createDownloads = false;
    QVERIFY(fixture.downloader->Start());
    QCOMPARE(fixture.trace.Lines(), QStringList{requestFailed});
    QCOMPARE(fixture.log.Lines(),
             (QStringList{"updater.download 7 Sending download requests...",
                          "updater.download 2 Failed to create file download for file 'file1'."}));
    QCOMPARE(FakeServices::Calls("CreateFileDownload").size(), 1);
}

void TestDownloader::TransferThatCannotBeStartedFails()
{
    Fixture fixture(Files(3));
    FakeServices::refusedDownload = "file2";
    QVERIFY(fixture.downloader->Start());
    QCOMPARE(fixture.trace.Lines(), QStringList{requestFailed});
    QCOMPARE(Fixture::Running(), QStringList{"file1"});
    QCOMPARE(fixture.log.Lines(),
             (QStringList{"updater.download 7 Sending download requests...",
                          "updater.download 6 Trying to start download file 'file1'...",
                          "updater.download 6 Trying to start download file 'file2'...",
                          "updater.download 2 Can't start download file 'file2'!"}));
}

void TestDownloader::StuckFileIsTriedAgainAfterEachCompletion()
{
    Fixture fixture(Files(4));
    FakeServices::refusedDownload = "file3";
    fixture.downloader->Start();
    QCOMPARE(Fixture::Running(), (QStringList{"file1", "file2"}));
    Fixture::Complete("file1");
    QCOMPARE(fixture.trace.Lines(), (QStringList{requestFailed, "progress(1, 4)", requestFailed}));
    // What held it back is gone.
    FakeServices::refusedDownload.clear();
    Fixture::Complete("file2");
    QCOMPARE(Fixture::Running(), (QStringList{"file3", "file4"}));
    Fixture::Complete("file3");
    Fixture::Complete("file4");
    QCOMPARE(fixture.trace.Lines().mid(3),
             (QStringList{"progress(2, 4)", "progress(3, 4)", "progress(4, 4)", "complete()"}));
}

void TestDownloader::UnsafeNamesAreNeverStarted_data()
{
    QTest::addColumn<QString>("name");

    QTest::newRow("empty") << "";
    QTest::newRow("absolute") << "/etc/passwd";
    QTest::newRow("parent") << "../x";
    QTest::newRow("parent inside") << "a/../../x";
    QTest::newRow("parent at the end") << "a/..";
    QTest::newRow("parent alone") << "..";
    QTest::newRow("harmless parent") << "a/../b";
    QTest::newRow("drive letter") << "C:/x";
    QTest::newRow("drive letter without separator") << "c:x";
    QTest::newRow("backslash") << "a\\b";
    QTest::newRow("backslash parent") << "..\\x";
    QTest::newRow("network path") << "\\\\host\\share";
    QTest::newRow("line feed") << "a\nb";
    QTest::newRow("null") << QString("a") + QChar(0) + "b";
    QTest::newRow("escape") << "a\x1b[0m";
}

void TestDownloader::UnsafeNamesAreNeverStarted()
{
    QFETCH(QString, name);
    Fixture fixture({File("good", "", 1, "", ""), File(name, "", 1, "", "")});
    fixture.downloader->Start();
    QCOMPARE(Fixture::Running(), QStringList{"good"});
    QCOMPARE(fixture.trace.Lines(), QStringList{requestFailed});
    QVERIFY2(fixture.log.Contains("updater.download 2 Can't start download file '" + name + "'!"),
             qPrintable(fixture.log.Lines().join('\n')));
    QCOMPARE(FakeServices::Calls("StartDownload").size(), 1);
}

void TestDownloader::NamesThroughALinkAreNeverStarted()
{
    kxtest::TreeBuilder tree;
    tree.Dir("outside").Symlink("download/link", "../outside").File("download/plain", "x");
    Fixture fixture({File("dir/good", "", 1, "", ""), File("link/x", "", 1, "", "")});
    fixture.downloader->SetDownloadPath(tree.Path("download"));
    fixture.downloader->Start();
    QCOMPARE(Fixture::Running(), QStringList{"good"});
    QCOMPARE(fixture.trace.Lines(), QStringList{requestFailed});
    QVERIFY(fixture.log.Contains("updater.download 2 Can't start download file 'link/x'!"));

    // A link at the very place of the file is replaced by the service, not followed.
    Fixture other({File("link", "", 1, "", "")});
    other.downloader->SetDownloadPath(tree.Path("download"));
    other.downloader->Start();
    QCOMPARE(other.trace.Lines(), QStringList{});
}

void TestDownloader::AbortWithoutTransfersIsSilent()
{
    Fixture fixture(Files(2));
    fixture.downloader->Abort();
    QCOMPARE(fixture.trace.Lines(), QStringList{});
    QCOMPARE(fixture.log.Lines(), QStringList{});
}

void TestDownloader::AbortDeletesTransfersAndFailsOnce()
{
    Fixture fixture(Files(10));
    fixture.downloader->Start();
    Fixture::Complete("file1");
    QVERIFY(QMetaObject::invokeMethod(fixture.downloader.get(), "Abort"));
    QCOMPARE(fixture.trace.Lines(), (QStringList{"progress(1, 10)", aborted}));
    for (const auto& download : std::as_const(FakeServices::downloads))
        QVERIFY(!download);
    fixture.downloader->Abort();
    kxtest::PassTimersOf(20);
    QCOMPARE(fixture.trace.Lines().size(), 2);
    QCOMPARE(FakeServices::Calls("StartDownload").size(), 5);
}

void TestDownloader::StartAfterAbortBeginsAnew()
{
    Fixture fixture(Files(2));
    fixture.downloader->Start();
    Fixture::Complete("file1");
    fixture.downloader->Abort();
    fixture.trace.Clear();
    bool started = false;
    QVERIFY(
        QMetaObject::invokeMethod(fixture.downloader.get(), "Start", Q_RETURN_ARG(bool, started)));
    QVERIFY(started);
    Fixture::Complete("file1");
    Fixture::Complete("file2");
    QCOMPARE(fixture.trace.Lines(),
             (QStringList{"progress(1, 2)", "progress(2, 2)", "complete()"}));
}

void TestDownloader::DestructorAborts()
{
    Fixture fixture(Files(2));
    fixture.downloader->Start();
    fixture.downloader.reset();
    QCOMPARE(fixture.trace.Lines(), QStringList{aborted});
    for (const auto& download : std::as_const(FakeServices::downloads))
        QVERIFY(!download);
}

void TestDownloader::DestructorOfAnIdleOneIsSilent()
{
    Fixture fixture(Files(1));
    fixture.downloader->Start();
    Fixture::Complete("file1");
    fixture.downloader.reset();
    QCOMPARE(fixture.trace.Lines(), (QStringList{"progress(1, 1)", "complete()"}));
}

void TestDownloader::SlotsWithoutSenderAreTolerated()
{
    Fixture fixture(Files(2));
    QVERIFY(QMetaObject::invokeMethod(fixture.downloader.get(), "OnFileDownloadFailed",
                                      Q_ARG(int, 9), Q_ARG(QString, "nine")));
    QCOMPARE(fixture.log.Lines(),
             QStringList{"updater.download 3 DownloadFailed() - File download is null!"});
    QCOMPARE(fixture.trace.Lines(), QStringList{"failed(9, nine)"});
    fixture.log.Clear();
    fixture.trace.Clear();
    QVERIFY(QMetaObject::invokeMethod(fixture.downloader.get(), "OnFileDownloadComplete"));
    QCOMPARE(fixture.log.Lines(),
             (QStringList{"updater.download 3 DownloadComplete() - File download is null!",
                          "updater.download 6 Download complete!"}));
    QCOMPARE(fixture.trace.Lines(), QStringList{"complete()"});
}

void TestDownloader::DeletionInsideASignalIsSafe_data()
{
    QTest::addColumn<QString>("signal");

    QTest::newRow("first progress") << "progress(1, 6)";
    QTest::newRow("last progress") << "progress(6, 6)";
    QTest::newRow("complete") << "complete()";
    QTest::newRow("failed") << "failed(5, five)";
    QTest::newRow("request failed") << requestFailed;
    QTest::newRow("aborted") << aborted;
}

void TestDownloader::DeletionInsideASignalIsSafe()
{
    QFETCH(QString, signal);
    Fixture fixture(Files(6));
    bool deleted = false;
    fixture.trace.SetHook([&](const QString& line) {
        if (line == signal && !deleted) {
            deleted = true;
            fixture.downloader.reset();
        }
    });
    fixture.downloader->Start();
    if (signal.startsWith("failed(5")) {
        Fixture::Fail("file1", 5, "five");
    } else if (signal == requestFailed) {
        FakeServices::refusedDownload = "file5";
        Fixture::Complete("file1");
    } else if (signal == aborted) {
        fixture.downloader->Abort();
    } else {
        while (!deleted)
            Fixture::Complete(Fixture::Running().first());
    }
    QVERIFY(deleted);
    QVERIFY(Fixture::Running().isEmpty());
    kxtest::PassTimersOf(20);
    // Transfers that ran are reported as aborted, and nothing comes after that.
    const QStringList lines = fixture.trace.Lines();
    QVERIFY(lines.last() == signal || lines.last() == aborted);
    QCOMPARE(
        lines.count(aborted) + lines.count("complete()") + (signal == "progress(6, 6)" ? 1 : 0), 1);
}

void TestDownloader::AbortInsideASignalIsSafe_data()
{
    QTest::addColumn<QString>("signal");

    QTest::newRow("progress") << "progress(1, 6)";
    QTest::newRow("failed") << "failed(5, five)";
    QTest::newRow("aborted") << aborted;
}

void TestDownloader::AbortInsideASignalIsSafe()
{
    QFETCH(QString, signal);
    Fixture fixture(Files(6));
    fixture.trace.SetHook([&](const QString& line) {
        if (line == signal)
            fixture.downloader->Abort();
    });
    fixture.downloader->Start();
    if (signal.startsWith("progress"))
        Fixture::Complete("file1");
    else if (signal == aborted)
        fixture.downloader->Abort();
    else
        Fixture::Fail("file1", 5, "five");
    QCOMPARE(fixture.trace.Count(aborted), 1);
    kxtest::PassTimersOf(20);
    QCOMPARE(fixture.trace.Count(aborted), 1);
    QCOMPARE(fixture.trace.CountOf("complete"), 0);
    // The files that wait are not started by what is left of the slot.
    QCOMPARE(Fixture::Running(), QStringList{});
}

void TestDownloader::StartInsideCompleteBeginsAnew()
{
    Fixture fixture(Files(1));
    bool again = false;
    fixture.trace.SetHook([&](const QString& line) {
        if (line == "complete()" && !again) {
            again = true;
            fixture.downloader->Start();
        }
    });
    fixture.downloader->Start();
    Fixture::Complete("file1");
    QCOMPARE(Fixture::Running(), QStringList{"file1"});
    Fixture::Complete("file1");
    QCOMPARE(fixture.trace.Lines(),
             (QStringList{"progress(1, 1)", "complete()", "progress(1, 1)", "complete()"}));
}

void TestDownloader::WithoutManagerNothingStarts()
{
    Downloader downloader(nullptr, nullptr);
    kxtest::SignalTrace trace(&downloader);
    downloader.SetURL("http://h");
    downloader.SetDownloadPath("/d");
    downloader.SetFiles(Files(1));
    QVERIFY(downloader.Start());
    QCOMPARE(trace.Lines(), QStringList{requestFailed});
}

void TestDownloader::MessagesNameTheirFunction()
{
    Fixture fixture(Files(1));
    fixture.downloader->Start();
    Fixture::Complete("file1");
    QStringList functions;
    for (const kxtest::LogRecord& record : fixture.log.Records())
        functions << record.function;
    QCOMPARE(functions,
             (QStringList{"updater::Downloader::SendRequest", "updater::Downloader::CreateDownload",
                          "updater::Downloader::OnFileDownloadComplete"}));
}

void TestDownloader::PublishedOrderIsKept()
{
    using kxtest::VtableIndex;
    const int first = kxtest::firstAfterQObject;
    QCOMPARE(VtableIndex(&Downloader::SetURL), first);
    QCOMPARE(VtableIndex(&Downloader::URL), first + 1);
    QCOMPARE(VtableIndex(&Downloader::SetDownloadPath), first + 2);
    QCOMPARE(VtableIndex(&Downloader::DownloadPath), first + 3);
    QCOMPARE(VtableIndex(&Downloader::SetMaxDownloads), first + 4);
    QCOMPARE(VtableIndex(&Downloader::MaxDownloads), first + 5);
    QCOMPARE(VtableIndex(&Downloader::SetFiles), first + 6);
    QCOMPARE(VtableIndex(&Downloader::GetFiles), first + 7);
    QCOMPARE(VtableIndex(&Downloader::Start), first + 8);
    QCOMPARE(VtableIndex(&Downloader::Abort), first + 9);

    const QMetaObject& meta = Downloader::staticMetaObject;
    QStringList signatures;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
        signatures << meta.method(i).methodSignature();
    QCOMPARE(signatures, (QStringList{"progress(int,int)", "complete()", "failed(int,QString)",
                                      "OnFileDownloadComplete()",
                                      "OnFileDownloadFailed(int,QString)", "Start()", "Abort()"}));
}

QTEST_GUILESS_MAIN(TestDownloader)
#include "tst_downloader.moc"
