#include "allocationfailure.h"
#include "fakeservices.h"
#include "logcapture.h"
#include "manifest.h"
#include "quietperiod.h"
#include "signaltrace.h"
#include "vtableindex.h"
#include "wiringguard.h"

#include "retrydelay.h"

#include <kxupdater/build.h>
#include <kxupdater/package.h>
#include <kxupdater/version.h>

#include <QNetworkAccessManager>
#include <QTest>

#include <functional>
#include <memory>

using kxtest::FakeServices;
using updater::File;
using updater::Package;

namespace {

constexpr int waitMs = 30000;
const char base[] = "https://example.org/packages";

// The manifest's request is made first, the version query's second.
const char manifestSend[] = "request1 Send ";
const char versionSend[] = "request2 Send ";

QString ManifestUrl(const QString& version)
{
    return QString(base) + "/demo-app-v" + version + "/windows/" + updater::Build::Platform() +
           "/index.xml";
}

QString Manifest(const QString& package = "demo-app")
{
    return kxtest::ManifestFor(package, "http://h/d", "run", {File("a", "m", 1, "", "")});
}

FakeServices::Reply VersionBody(const QString& version)
{
    return FakeServices::Body(kxtest::VersionReply(version));
}

const QStringList versionSteps{
    "updater.package 7 Getting package info...", "updater.version 7 Sending version request...",
    "updater.version 7 Request finished!", "updater.package 7 Version on server '2.4.1'."};
const QStringList manifestSteps{"updater.package 7 Found 1 files in build.",
                                "updater.package 7 Download URL: 'http://h/d'.",
                                "updater.package 7 Executable Name: 'run'.",
                                "updater.package 6 Parsing successed!", "updater.package 6 Ready!"};

struct Query
{
    Query()
    {
        package->SetURL(base);
        package->SetName("demo-app");
        log.Clear();
        FakeServices::calls.clear();
    }

    // Runs the event loop until a query has ended, and returns the whole trace.
    QStringList Outcome()
    {
        const auto ended = [this] { return trace.CountOf("ready") + trace.CountOf("failed") > 0; };
        if (!QTest::qWaitFor(ended, waitMs))
            return {"(nothing)"};
        return trace.Lines();
    }

    QNetworkAccessManager manager;
    kxtest::LogCapture log;
    std::unique_ptr<Package> package = std::make_unique<Package>(&manager, nullptr);
    kxtest::SignalTrace trace{package.get()};
};

} // namespace

/** The query for a package. */
class TestPackage : public QObject
{
    Q_OBJECT

    int shippedDelay = updater::internal::RetryDelay();

private Q_SLOTS:
    void init()
    {
        kxtest::FailOnWiringWarnings();
        FakeServices::Reset();
        updater::internal::SetRetryDelay(0);
    }

    void RetriesWaitFiveSecondsAsShipped();
    void ConstructionMakesAndConfiguresBothRequests();
    void WithoutManagerEveryOperationSaysSo();
    void ManifestStepWithoutRequestFails();
    void WithoutVersionQueryEveryOperationSaysSo();
    void SettersAreLoggedAndPassedOn();
    void UrlIsThatOfTheBaseUntilTheQuery();
    void SuccessYieldsTheBuildAndIsLoggedStepByStep();
    void ManifestUrlIsMadeOfNameVersionAndPlatform_data();
    void ManifestUrlIsMadeOfNameVersionAndPlatform();
    void VersionFailureFailsOnceWithItsCode_data();
    void VersionFailureFailsOnceWithItsCode();
    void InstalledVersionIsPassedOn();
    void TwoManifestErrorsAreForgiven();
    void ThreeManifestErrorsFailWithTheLastOne();
    void ManifestErrorEmptiesTheResults();
    void BadManifestFailsAfterThreeSends();
    void ForeignManifestIsReadyWithoutFiles();
    void RefusedManifestSendFails();
    void GetWhileRunningResetsAndIsCompletedByTheEarlierReply();
    void GetWhileTheManifestRunsIsCompletedByTheEarlierReply();
    void GetEmptiesTheResults();
    void QueryCanBeRepeated();
    void QueryCanBeRepeatedAfterAFailure();
    void AbortEndsBothRequestsSilently();
    void GetAfterAbortLogsTheWarning();
    void AbortDropsThePendingRetry_data();
    void AbortDropsThePendingRetry();
    void GetDropsThePendingRetry_data();
    void GetDropsThePendingRetry();
    void AbortInsideErrorEndsTheQuery();
    void GetInsideErrorStartsAnew();
    void GetInsideFailedIsNotAborted();
    void GetInsideReadyStartsAnew();
    void DeletionInsideASignalIsSafe_data();
    void DeletionInsideASignalIsSafe();
    void SecondFailureOfAnOperationIsSilent();
    void DestructorDeletesVersionThenRequest();
    void MessagesNameTheirFunction();
    void PublishedOrderIsKept();
};

void TestPackage::RetriesWaitFiveSecondsAsShipped()
{
    QCOMPARE(shippedDelay, 5000);
}

void TestPackage::ConstructionMakesAndConfiguresBothRequests()
{
    QNetworkAccessManager manager;
    const Package package(&manager, nullptr);
    QCOMPARE(FakeServices::calls,
             (QStringList{"CreateHttpRequest", "request1 SetIntParameter 30",
                          "request1 SetBoolParameter 1", "CreateHttpRequest",
                          "request2 SetIntParameter 30", "request2 SetBoolParameter 1"}));
    QCOMPARE(FakeServices::requests.first()->parent(), &package);
    QCOMPARE(FakeServices::requests.last()->parent()->parent(), &package);
    QCOMPARE(package.Name(), QString());
    QCOMPARE(package.VersionString(), QString());
    QCOMPARE(package.DownloadURL(), QString());
    QCOMPARE(package.ExecutableName(), QString());
    QVERIFY(package.Files().isEmpty());
}

void TestPackage::WithoutManagerEveryOperationSaysSo()
{
    kxtest::LogCapture log;
    Package package(nullptr, nullptr);
    kxtest::SignalTrace trace(&package);
    QCOMPARE(log.Lines(), (QStringList{"updater.package 2 Failed to create request!",
                                       "updater.version 2 Failed to create request!"}));
    log.Clear();
    package.SetURL(base);
    QCOMPARE(log.Lines(), (QStringList{"updater.package 2 Failed to set URL!",
                                       "updater.version 2 Failed to set URL!"}));
    QCOMPARE(package.URL(), QString());
    package.Abort();
    log.Clear();
    package.Get();
    QCOMPARE(trace.Lines(), QStringList{"failed(600100, Request is not created!)"});
    QCOMPARE(log.Lines(),
             (QStringList{"updater.package 7 Getting package info...",
                          "updater.version 7 Sending version request...",
                          "updater.version 2 Request is not created!",
                          "updater.package 3 Version request failed!",
                          "updater.package 3 Getting package failed with error 600100, "
                          "'Request is not created!'!"}));
}

void TestPackage::ManifestStepWithoutRequestFails()
{
    kxtest::LogCapture log;
    Package package(nullptr, nullptr);
    kxtest::SignalTrace trace(&package);
    log.Clear();
    QVERIFY(QMetaObject::invokeMethod(&package, "SendRequest"));
    QCOMPARE(trace.Lines(), QStringList{"failed(600200, Request is not created!)"});
    QCOMPARE(log.Lines(), (QStringList{"updater.package 7 Sending version request...",
                                       "updater.package 2 Request is not created!",
                                       "updater.package 3 Getting package failed with error "
                                       "600200, 'Request is not created!'!"}));
    Package other(nullptr, nullptr);
    kxtest::SignalTrace otherTrace(&other);
    QVERIFY(QMetaObject::invokeMethod(&other, "OnVersionReady"));
    QCOMPARE(otherTrace.Lines(), QStringList{"failed(600200, Request is not created!)"});
}

void TestPackage::WithoutVersionQueryEveryOperationSaysSo()
{
    QNetworkAccessManager manager;
    kxtest::LogCapture log;
    std::unique_ptr<Package> package;
    {
        auto failure = kxtest::AllocationFailure::Of<updater::Version>();
        package = std::make_unique<Package>(&manager, nullptr);
        QVERIFY(failure.Failures() > 0);
    }
    kxtest::SignalTrace trace(package.get());
    QCOMPARE(log.Lines(), QStringList{"updater.package 2 Failed to create version!"});
    log.Clear();
    package->SetName("demo-app");
    package->SetURL(base);
    package->SetCurrentVersion("1.0");
    package->Abort();
    QCOMPARE(log.Lines(), (QStringList{"updater.package 7 Setting name to 'demo-app'.",
                                       "updater.package 2 Failed to set package to version!",
                                       "updater.package 2 Failed to set URL to version!"}));
    QCOMPARE(package->Name(), QString("demo-app"));
    QCOMPARE(package->URL(), QString(base));
    QCOMPARE(package->VersionString(), QString());
    log.Clear();
    package->Get();
    QCOMPARE(trace.Lines(), QStringList{"failed(600104, Version request is not created!)"});
    QCOMPARE(log.Lines(), (QStringList{"updater.package 7 Getting package info...",
                                       "updater.package 2 Version request is not created!",
                                       "updater.package 3 Getting package failed with error "
                                       "600104, 'Version request is not created!'!"}));
    QCOMPARE(FakeServices::Calls("request1 Send"), QStringList{});
    // What needs no version still works.
    package->SetPackageXML(Manifest());
    QCOMPARE(package->Files().size(), 1);
}

void TestPackage::SettersAreLoggedAndPassedOn()
{
    Query query;
    query.package->SetName("other");
    QCOMPARE(query.log.Lines(), QStringList{"updater.package 7 Setting name to 'other'."});
    QCOMPARE(query.package->Name(), QString("other"));
    const auto* version = query.package->findChild<updater::Version*>();
    QVERIFY(version);
    QCOMPARE(version->PackageName(), QString("other"));
    QCOMPARE(version->URL(), QString(base) + "/version.xml");
    query.package->SetURL("https://h/p");
    QCOMPARE(version->URL(), QString("https://h/p/version.xml"));
}

void TestPackage::UrlIsThatOfTheBaseUntilTheQuery()
{
    FakeServices::Answer("version.xml", {VersionBody("2.4.1")});
    FakeServices::Answer("index.xml", {FakeServices::Body(Manifest())});
    Query query;
    QCOMPARE(query.package->URL(), QString(base));
    query.package->Get();
    QCOMPARE(query.Outcome(), QStringList{"ready()"});
    QCOMPARE(query.package->URL(), ManifestUrl("2.4.1"));
}

void TestPackage::SuccessYieldsTheBuildAndIsLoggedStepByStep()
{
    FakeServices::Answer("version.xml", {VersionBody("2.4.1")});
    FakeServices::Answer("index.xml", {FakeServices::Body(Manifest())});
    Query query;
    query.package->Get();
    QCOMPARE(query.Outcome(), QStringList{"ready()"});
    QCOMPARE(query.log.Lines(), (versionSteps +
                                 QStringList{"updater.package 7 Sending version request...",
                                             "updater.package 7 Request finished!"} +
                                 manifestSteps));
    QCOMPARE(query.package->VersionString(), QString("2.4.1"));
    QCOMPARE(query.package->Files(), (updater::FileList{File("a", "m", 1, "", "")}));
    QCOMPARE(query.package->DownloadURL(), QString("http://h/d"));
    QCOMPARE(query.package->ExecutableName(), QString("run"));
    QVERIFY(
        query.package->GetPackageXML().startsWith("<?xml version=\"1.0\" encoding=\"utf-8\"?>"
                                                  "\n<packages>\n <package name=\"demo-app\">"));
    QCOMPARE(FakeServices::Calls("request2 Send"),
             QStringList{QString(versionSend) + base + "/version.xml"});
    QCOMPARE(FakeServices::Calls("request1 Send"),
             QStringList{manifestSend + ManifestUrl("2.4.1")});
}

void TestPackage::ManifestUrlIsMadeOfNameVersionAndPlatform_data()
{
    QTest::addColumn<QString>("base");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("version");
    QTest::addColumn<QString>("url");

    const QString end = "/windows/" + updater::Build::Platform() + "/index.xml";
    QTest::newRow("plain") << base << "demo-app"
                           << "2.4.1" << ManifestUrl("2.4.1");
    QTest::newRow("empty version") << "http://h/p"
                                   << "n"
                                   << ""
                                   << "http://h/p/n-v" + end;
    QTest::newRow("blanks") << "http://h/p"
                            << "my app"
                            << "1 0"
                            << "http://h/p/my app-v1 0" + end;
    QTest::newRow("markers in the name") << "http://h/p"
                                         << "%2-%3"
                                         << "9"
                                         << "http://h/p/%2-%3-v9" + end;
    QTest::newRow("query of the base stays in front") << "http://h/p?a=b"
                                                      << "n"
                                                      << "1"
                                                      << "http://h/p?a=b/n-v1" + end;
}

void TestPackage::ManifestUrlIsMadeOfNameVersionAndPlatform()
{
    QFETCH(QString, base);
    QFETCH(QString, name);
    QFETCH(QString, version);
    QFETCH(QString, url);
    FakeServices::Answer("", {VersionBody(version)});
    Query query;
    query.package->SetURL(base);
    query.package->SetName(name);
    query.package->Get();
    QTRY_COMPARE_WITH_TIMEOUT(FakeServices::Calls("request1 Send").size(), 1, waitMs);
    // The query compares as the client would write it: both went through QUrl in tolerant mode.
    QCOMPARE(FakeServices::requests.first()->Url(), QUrl(url));
}

void TestPackage::VersionFailureFailsOnceWithItsCode_data()
{
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("text");

    QTest::newRow("error of the service") << 42 << "the cable";
    QTest::newRow("reply does not parse") << 600103 << "Failed to parse reply!";
    QTest::newRow("send refused") << 600102 << "Failed to send request!";
}

void TestPackage::VersionFailureFailsOnceWithItsCode()
{
    QFETCH(int, code);
    QFETCH(QString, text);
    FakeServices::Reply reply = FakeServices::Failure(code, text);
    if (code == 600103)
        reply = FakeServices::Body("<x/>");
    else if (code == 600102)
        reply = FakeServices::Refusal();
    FakeServices::Answer("version.xml", {reply, reply, reply});
    Query query;
    query.package->Get();
    QCOMPARE(query.Outcome(), QStringList{QStringLiteral("failed(%1, %2)").arg(code).arg(text)});
    const QStringList lines = query.log.Lines("updater.package");
    QCOMPARE(
        lines,
        (QStringList{
            "7 Getting package info...", "3 Version request failed!",
            QStringLiteral("3 Getting package failed with error %1, '%2'!").arg(code).arg(text)}));
    QCOMPARE(FakeServices::Calls("request1 Send"), QStringList{});
    // The failure aborts whatever might still run.
    QCOMPARE(FakeServices::Calls("request1 Abort").size(), 1);
    QCOMPARE(FakeServices::Calls("request2 Abort").size(), 1);
    kxtest::PassTimersOf(20);
    QCOMPARE(query.trace.Lines().size(), 1);
}

void TestPackage::InstalledVersionIsPassedOn()
{
    FakeServices::Answer("version.xml", {VersionBody("2.9"), VersionBody("2.9")});
    FakeServices::Answer("index.xml", {FakeServices::Body(Manifest())});
    Query query;
    query.package->SetCurrentVersion("3.0");
    query.package->Get();
    QCOMPARE(query.Outcome(), QStringList{"ready()"});
    QCOMPARE(FakeServices::Calls("request2 Send").size(), 2);
    // The random item belongs to the version reply alone.
    QCOMPARE(query.package->URL(), ManifestUrl("2.9"));
}

void TestPackage::TwoManifestErrorsAreForgiven()
{
    FakeServices::Answer("version.xml", {VersionBody("2.4.1")});
    FakeServices::Answer("index.xml",
                         {FakeServices::Failure(1, "one"), FakeServices::Failure(2, "two"),
                          FakeServices::Body(Manifest())});
    Query query;
    query.package->Get();
    QCOMPARE(query.Outcome(), (QStringList{"error(1, one)", "error(2, two)", "ready()"}));
    QCOMPARE(query.package->Files().size(), 1);
    QCOMPARE(FakeServices::Calls("request2 Send").size(), 1);
}

void TestPackage::ThreeManifestErrorsFailWithTheLastOne()
{
    FakeServices::Answer("version.xml", {VersionBody("2.4.1")});
    FakeServices::Answer("index.xml",
                         {FakeServices::Failure(1, "one"), FakeServices::Failure(2, "two"),
                          FakeServices::Failure(3, "three"), FakeServices::Body(Manifest())});
    Query query;
    query.package->Get();
    QCOMPARE(query.Outcome(), (QStringList{"error(1, one)", "error(2, two)", "error(3, three)",
                                           "failed(3, three)"}));
    const QString send = "updater.package 7 Sending version request...";
    const QString retry = "updater.package 7 Retrying request by timer...";
    QCOMPARE(query.log.Lines(),
             (versionSteps +
              QStringList{send, "updater.package 3 Request failed with error '1'.", retry, send,
                          "updater.package 3 Request failed with error '2'.", retry, send,
                          "updater.package 3 Request failed with error '3'.",
                          "updater.package 3 Can't retry request - no more tries!",
                          "updater.package 3 Getting package failed with error 3, 'three'!"}));
    const QString url = manifestSend + ManifestUrl("2.4.1");
    QCOMPARE(FakeServices::Calls("request1 Send"), (QStringList{url, url, url}));
}

void TestPackage::ManifestErrorEmptiesTheResults()
{
    FakeServices::Answer("version.xml", {VersionBody("2.4.1")});
    FakeServices::Answer("index.xml", {FakeServices::Failure(1, "one")});
    updater::internal::SetRetryDelay(3'600'000);
    Query query;
    query.package->Get();
    query.package->SetPackageXML(Manifest());
    QCOMPARE(query.package->Files().size(), 1);
    QTRY_COMPARE_WITH_TIMEOUT(query.trace.Lines(), QStringList{"error(1, one)"}, waitMs);
    QCOMPARE(query.package->Files().size(), 0);
    QCOMPARE(query.package->DownloadURL(), QString());
    QCOMPARE(query.package->ExecutableName(), QString());
}

void TestPackage::BadManifestFailsAfterThreeSends()
{
    const FakeServices::Reply bad = FakeServices::Body("<Packages/>");
    FakeServices::Answer("version.xml", {VersionBody("2.4.1")});
    FakeServices::Answer("index.xml", {bad, bad, bad, FakeServices::Body(Manifest())});
    Query query;
    query.package->Get();
    QCOMPARE(query.Outcome(), QStringList{"failed(600202, Failed to parse reply!)"});
    const QStringList once{"updater.package 7 Sending version request...",
                           "updater.package 7 Request finished!",
                           "updater.package 3 Failed to parse reply - can't get root element!",
                           "updater.package 2 Failed to parse reply!"};
    const QStringList retry{"updater.package 7 Retrying request by timer..."};
    QCOMPARE(query.log.Lines(),
             (versionSteps + once + retry + once + retry + once +
              QStringList{"updater.package 3 Can't retry request - no more tries!",
                          "updater.package 3 Getting package failed with error 600202, "
                          "'Failed to parse reply!'!"}));
}

void TestPackage::ForeignManifestIsReadyWithoutFiles()
{
    FakeServices::Answer("version.xml", {VersionBody("2.4.1")});
    FakeServices::Answer("index.xml", {FakeServices::Body(Manifest("other"))});
    Query query;
    query.package->SetPackageXML(Manifest());
    query.package->Get();
    QCOMPARE(query.Outcome(), QStringList{"ready()"});
    QVERIFY(query.package->Files().isEmpty());
    QCOMPARE(query.package->DownloadURL(), QString());
    QCOMPARE(query.package->ExecutableName(), QString());
}

void TestPackage::RefusedManifestSendFails()
{
    FakeServices::Answer("version.xml", {VersionBody("2.4.1")});
    FakeServices::Answer("index.xml", {FakeServices::Refusal()});
    Query query;
    query.package->Get();
    QCOMPARE(query.Outcome(), QStringList{"failed(600201, Failed to send request!)"});
    QCOMPARE(query.log.Lines(),
             (versionSteps + QStringList{"updater.package 7 Sending version request...",
                                         "updater.package 2 Failed to send request!",
                                         "updater.package 3 Getting package failed with error "
                                         "600201, 'Failed to send request!'!"}));
}

void TestPackage::GetWhileRunningResetsAndIsCompletedByTheEarlierReply()
{
    FakeServices::Answer("version.xml", {FakeServices::Silence()});
    FakeServices::Answer("index.xml", {FakeServices::Body(Manifest())});
    Query query;
    query.package->Get();
    query.package->SetPackageXML(Manifest());
    query.log.Clear();
    query.package->Get();
    QVERIFY(query.package->Files().isEmpty());
    QCOMPARE(
        query.log.Lines(),
        (QStringList{
            "updater.package 7 Getting package info...",
            "updater.package 4 Get package already started! This will reset current operation!",
            "updater.version 7 Sending version request...",
            "updater.version 2 Request already running!"}));
    QCOMPARE(FakeServices::Calls("request2 Abort"), QStringList{});
    FakeServices::requests.last()->Finish(kxtest::VersionReply("2.4.1"));
    QCOMPARE(query.Outcome(), QStringList{"ready()"});
    QCOMPARE(FakeServices::Calls("request2 Send").size(), 1);
    QCOMPARE(query.package->Files().size(), 1);
}

void TestPackage::GetWhileTheManifestRunsIsCompletedByTheEarlierReply()
{
    FakeServices::Answer("version.xml", {VersionBody("2.4.1"), VersionBody("2.4.1")});
    Query query;
    query.package->Get();
    QTRY_COMPARE_WITH_TIMEOUT(FakeServices::Calls("request1 Send").size(), 1, waitMs);
    query.package->Get();
    QTRY_VERIFY_WITH_TIMEOUT(query.log.Contains("updater.package 2 Request already running!"),
                             waitMs);
    QCOMPARE(query.trace.Lines(), QStringList{});
    FakeServices::requests.first()->Finish(Manifest());
    QCOMPARE(query.Outcome(), QStringList{"ready()"});
    QCOMPARE(query.package->Files().size(), 1);
    QCOMPARE(FakeServices::Calls("request1 Send").size(), 1);
}

void TestPackage::GetEmptiesTheResults()
{
    Query query;
    query.package->SetPackageXML(Manifest());
    const QString xml = query.package->GetPackageXML();
    query.package->Get();
    QVERIFY(query.package->Files().isEmpty());
    QCOMPARE(query.package->DownloadURL(), QString());
    QCOMPARE(query.package->ExecutableName(), QString());
    QCOMPARE(query.package->GetPackageXML(), xml);
}

void TestPackage::QueryCanBeRepeated()
{
    FakeServices::Answer("version.xml", {VersionBody("2.4.1"), VersionBody("2.5")});
    FakeServices::Answer("index.xml",
                         {FakeServices::Body(Manifest()), FakeServices::Body(Manifest())});
    Query query;
    query.package->Get();
    QCOMPARE(query.Outcome(), QStringList{"ready()"});
    query.trace.Clear();
    query.log.Clear();
    query.package->Get();
    QCOMPARE(query.Outcome(), QStringList{"ready()"});
    QCOMPARE(query.package->VersionString(), QString("2.5"));
    QCOMPARE(FakeServices::Calls("request1 Send").last(), manifestSend + ManifestUrl("2.5"));
    QCOMPARE(FakeServices::Calls("request2 Send").last(),
             QString(versionSend) + base + "/version.xml");
    QCOMPARE(query.log.Count("updater.package 4 Get package already started! This will reset "
                             "current operation!"),
             0);
}

void TestPackage::QueryCanBeRepeatedAfterAFailure()
{
    FakeServices::Answer("version.xml", {FakeServices::Refusal(), VersionBody("2.4.1")});
    FakeServices::Answer("index.xml",
                         {FakeServices::Failure(1, "one"), FakeServices::Failure(2, "two"),
                          FakeServices::Body(Manifest())});
    Query query;
    query.package->Get();
    QCOMPARE(query.Outcome(), QStringList{"failed(600102, Failed to send request!)"});
    query.trace.Clear();
    query.package->Get();
    QCOMPARE(query.Outcome(), (QStringList{"error(1, one)", "error(2, two)", "ready()"}));
}

void TestPackage::AbortEndsBothRequestsSilently()
{
    Query query;
    query.package->Get();
    query.log.Clear();
    FakeServices::calls.clear();
    query.package->Abort();
    QCOMPARE(FakeServices::calls, (QStringList{"request2 Abort", "request1 Abort"}));
    kxtest::PassTimersOf(20);
    QCOMPARE(query.trace.Lines(), QStringList{});
    QCOMPARE(query.log.Lines(), QStringList{});
}

void TestPackage::GetAfterAbortLogsTheWarning()
{
    FakeServices::Answer("version.xml", {FakeServices::Silence(), VersionBody("2.4.1")});
    FakeServices::Answer("index.xml", {FakeServices::Body(Manifest())});
    Query query;
    query.package->Get();
    query.package->Abort();
    query.package->Get();
    QVERIFY(query.log.Contains("updater.package 4 Get package already started! This will reset "
                               "current operation!"));
    QVERIFY(!query.log.Contains("updater.version 2 Request already running!"));
    QCOMPARE(query.Outcome(), QStringList{"ready()"});
}

void TestPackage::AbortDropsThePendingRetry_data()
{
    QTest::addColumn<bool>("version");

    QTest::newRow("of the version") << true;
    QTest::newRow("of the manifest") << false;
}

void TestPackage::AbortDropsThePendingRetry()
{
    QFETCH(bool, version);
    updater::internal::SetRetryDelay(10);
    FakeServices::Answer("version.xml",
                         {version ? FakeServices::Failure(1, "one") : VersionBody("2.4.1")});
    FakeServices::Answer("index.xml", {FakeServices::Failure(1, "one")});
    Query query;
    query.package->Get();
    QTRY_VERIFY_WITH_TIMEOUT(query.log.Lines().last().endsWith("Retrying request by timer..."),
                             waitMs);
    const QStringList before = query.trace.Lines();
    query.package->Abort();
    kxtest::PassTimersOf(30);
    QCOMPARE(FakeServices::Calls("request2 Send").size(), 1);
    QCOMPARE(FakeServices::Calls("request1 Send").size(), version ? 0 : 1);
    QCOMPARE(query.trace.Lines(), before);
}

void TestPackage::GetDropsThePendingRetry_data()
{
    AbortDropsThePendingRetry_data();
}

void TestPackage::GetDropsThePendingRetry()
{
    QFETCH(bool, version);
    updater::internal::SetRetryDelay(10);
    FakeServices::Answer("version.xml",
                         {version ? FakeServices::Failure(1, "one") : VersionBody("2.4.1"),
                          FakeServices::Silence()});
    FakeServices::Answer("index.xml", {FakeServices::Failure(1, "one")});
    Query query;
    query.package->Get();
    QTRY_VERIFY_WITH_TIMEOUT(query.log.Lines().last().endsWith("Retrying request by timer..."),
                             waitMs);
    query.package->Get();
    kxtest::PassTimersOf(30);
    QCOMPARE(FakeServices::Calls("request2 Send").size(), 2);
    QCOMPARE(FakeServices::Calls("request1 Send").size(), version ? 0 : 1);
    QVERIFY(!query.log.Contains("updater.version 2 Request already running!"));
}

void TestPackage::AbortInsideErrorEndsTheQuery()
{
    FakeServices::Answer("version.xml", {VersionBody("2.4.1")});
    FakeServices::Answer("index.xml",
                         {FakeServices::Failure(1, "one"), FakeServices::Body(Manifest())});
    Query query;
    query.trace.SetHook([&](const QString&) { query.package->Abort(); });
    query.package->Get();
    QTRY_COMPARE_WITH_TIMEOUT(query.trace.Lines(), QStringList{"error(1, one)"}, waitMs);
    kxtest::PassTimersOf(20);
    QCOMPARE(query.trace.Lines(), QStringList{"error(1, one)"});
    QCOMPARE(FakeServices::Calls("request1 Send").size(), 1);
}

void TestPackage::GetInsideErrorStartsAnew()
{
    FakeServices::Answer("version.xml", {VersionBody("2.4.1"), VersionBody("2.5")});
    FakeServices::Answer("index.xml",
                         {FakeServices::Failure(1, "one"), FakeServices::Failure(2, "two"),
                          FakeServices::Failure(3, "three"), FakeServices::Failure(4, "four"),
                          FakeServices::Failure(5, "five"), FakeServices::Body(Manifest())});
    Query query;
    query.trace.SetHook([&](const QString& line) {
        // Inside the last error of the first query, which would end it.
        if (line == "error(3, three)")
            query.package->Get();
    });
    query.package->Get();
    QTRY_COMPARE_WITH_TIMEOUT(query.trace.Lines(),
                              (QStringList{"error(1, one)", "error(2, two)", "error(3, three)",
                                           "error(4, four)", "error(5, five)", "ready()"}),
                              waitMs);
    kxtest::PassTimersOf(20);
    QCOMPARE(query.trace.Lines().size(), 6);
    QCOMPARE(FakeServices::Calls("request2 Send").size(), 2);
    // Nothing is left of the first query: it would have tried to send once more.
    QCOMPARE(FakeServices::Calls("request1 Send").size(), 6);
    QVERIFY(!query.log.Contains("updater.package 2 Request already running!"));
}

void TestPackage::GetInsideFailedIsNotAborted()
{
    FakeServices::Answer("version.xml", {FakeServices::Refusal(), VersionBody("2.4.1")});
    FakeServices::Answer("index.xml", {FakeServices::Body(Manifest())});
    Query query;
    query.trace.SetHook([&](const QString& line) {
        if (line.startsWith("failed"))
            query.package->Get();
    });
    query.package->Get();
    QTRY_COMPARE_WITH_TIMEOUT(query.trace.Lines(),
                              (QStringList{"failed(600102, Failed to send request!)", "ready()"}),
                              waitMs);
    QCOMPARE(FakeServices::Calls("request2 Abort").size(), 0);
}

void TestPackage::GetInsideReadyStartsAnew()
{
    FakeServices::Answer("version.xml", {VersionBody("2.4.1"), VersionBody("2.5")});
    FakeServices::Answer("index.xml",
                         {FakeServices::Body(Manifest()), FakeServices::Body(Manifest())});
    Query query;
    query.trace.SetHook([&](const QString&) {
        if (query.package->VersionString() == "2.4.1")
            query.package->Get();
    });
    query.package->Get();
    QTRY_COMPARE_WITH_TIMEOUT(query.trace.Lines(), (QStringList{"ready()", "ready()"}), waitMs);
    QCOMPARE(query.package->VersionString(), QString("2.5"));
}

void TestPackage::DeletionInsideASignalIsSafe_data()
{
    QTest::addColumn<QString>("version");
    QTest::addColumn<QString>("manifest");
    QTest::addColumn<QString>("signal");

    QTest::newRow("ready") << "2.4.1" << Manifest() << "ready()";
    QTest::newRow("error") << "2.4.1"
                           << ""
                           << "error(1, one)";
    QTest::newRow("failed by the version") << ""
                                           << ""
                                           << "failed(1, one)";
    QTest::newRow("failed by the manifest") << "2.4.1"
                                            << "<x/>"
                                            << "failed(600202, Failed to parse reply!)";
}

void TestPackage::DeletionInsideASignalIsSafe()
{
    QFETCH(QString, version);
    QFETCH(QString, manifest);
    QFETCH(QString, signal);
    const FakeServices::Reply failure = FakeServices::Failure(1, "one");
    for (int i = 0; i < 3; ++i) {
        FakeServices::Answer("version.xml", {version.isEmpty() ? failure : VersionBody(version)});
        FakeServices::Answer("index.xml",
                             {manifest.isEmpty() ? failure : FakeServices::Body(manifest)});
    }
    Query query;
    query.trace.SetHook([&](const QString&) { query.package.reset(); });
    query.package->Get();
    QTRY_COMPARE_WITH_TIMEOUT(query.trace.Lines(), QStringList{signal}, waitMs);
    QVERIFY(!query.package);
    kxtest::PassTimersOf(20);
    QCOMPARE(query.trace.Lines(), QStringList{signal});
    QVERIFY(!FakeServices::requests.first());
    QVERIFY(!FakeServices::requests.last());
}

void TestPackage::SecondFailureOfAnOperationIsSilent()
{
    FakeServices::Answer("version.xml", {FakeServices::Refusal()});
    Query query;
    query.package->Get();
    QCOMPARE(query.trace.Lines().size(), 1);
    query.log.Clear();
    QVERIFY(QMetaObject::invokeMethod(query.package.get(), "OnVersionFailed", Q_ARG(int, 5),
                                      Q_ARG(QString, "late")));
    QCOMPARE(query.trace.Lines().size(), 1);
    QCOMPARE(query.log.Lines(), QStringList{"updater.package 3 Version request failed!"});
}

void TestPackage::DestructorDeletesVersionThenRequest()
{
    Query query;
    query.package->Get();
    query.log.Clear();
    FakeServices::calls.clear();
    query.package.reset();
    QCOMPARE(query.log.Lines(),
             (QStringList{"updater.package 7 destroyed.", "updater.version 7 destroyed."}));
    QCOMPARE(query.log.Records().first().function, QString("updater::Package::~Package"));
    QCOMPARE(FakeServices::calls, (QStringList{"request2 deleted", "request1 deleted"}));
    QCOMPARE(query.trace.Lines(), QStringList{});
}

void TestPackage::MessagesNameTheirFunction()
{
    FakeServices::Answer("version.xml", {VersionBody("2.4.1")});
    FakeServices::Answer("index.xml",
                         {FakeServices::Failure(1, "one"), FakeServices::Body(Manifest())});
    Query query;
    query.package->Get();
    QCOMPARE(query.Outcome(), (QStringList{"error(1, one)", "ready()"}));
    QStringList functions;
    for (const kxtest::LogRecord& record : query.log.Records()) {
        if (record.category == "updater.package")
            functions << record.function;
    }
    QCOMPARE(functions,
             (QStringList{"updater::Package::Get", "updater::Package::OnVersionReady",
                          "updater::Package::SendRequest", "updater::Package::OnRequestError",
                          "updater::Package::Retry", "updater::Package::SendRequest",
                          "updater::Package::OnRequestFinished", "updater::GetBuild",
                          "updater::Package::ParseReply", "updater::Package::ParseReply",
                          "updater::Package::ParseReply", "updater::Package::CheckReady"}));
}

void TestPackage::PublishedOrderIsKept()
{
    using kxtest::VtableIndex;
    const int first = kxtest::firstAfterQObject;
    QCOMPARE(VtableIndex(&Package::SetName), first);
    QCOMPARE(VtableIndex(&Package::Name), first + 1);
    QCOMPARE(VtableIndex(&Package::VersionString), first + 2);
    QCOMPARE(VtableIndex(&Package::SetURL), first + 3);
    QCOMPARE(VtableIndex(&Package::URL), first + 4);
    QCOMPARE(VtableIndex(&Package::Files), first + 5);
    QCOMPARE(VtableIndex(&Package::DownloadURL), first + 6);
    QCOMPARE(VtableIndex(&Package::ExecutableName), first + 7);
    QCOMPARE(VtableIndex(&Package::GetPackageXML), first + 8);
    QCOMPARE(VtableIndex(&Package::SetPackageXML), first + 9);
    QCOMPARE(VtableIndex(&Package::SetCurrentVersion), first + 10);
    QCOMPARE(VtableIndex(&Package::Get), first + 11);
    QCOMPARE(VtableIndex(&Package::Abort), first + 12);

    const QMetaObject& meta = Package::staticMetaObject;
    QCOMPARE(QString(meta.className()), QString("updater::Package"));
    QStringList signatures;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
        signatures << meta.method(i).methodSignature();
    QCOMPARE(signatures, (QStringList{"ready()", "failed(int,QString)", "error(int,QString)",
                                      "Abort()", "OnVersionReady()", "OnVersionFailed(int,QString)",
                                      "OnRequestError(int,QString)", "OnRequestFinished(QString)",
                                      "SendRequest()"}));
    QCOMPARE(int(Package::Idle), 0);
    QCOMPARE(int(Package::Running), 1);
    QCOMPARE(int(Package::Done), 2);
    QCOMPARE(int(Package::Failed), 3);
}

QTEST_GUILESS_MAIN(TestPackage)
#include "tst_package.moc"
