#include "fakeservices.h"
#include "logcapture.h"
#include "quietperiod.h"
#include "signaltrace.h"
#include "vtableindex.h"
#include "wiringguard.h"

#include "retrydelay.h"

#include <kxupdater/version.h>

#include <QNetworkAccessManager>
#include <QRegularExpression>
#include <QTest>

#include <memory>

using kxtest::FakeServices;
using updater::Version;

namespace {

constexpr int waitMs = 30000;
const char base[] = "https://example.org/packages";
const char plain[] = "request1 Send https://example.org/packages/version.xml";

QString Reply(const QString& version)
{
    return "<version>" + version + "</version>";
}

// `xml` inside so many elements that it stands `depth` levels deep.
QString Nested(int depth)
{
    return "<version>" + QString("<a>").repeated(depth - 1) + QString("</a>").repeated(depth - 1) +
           "2.0</version>";
}

struct Query
{
    Query() { version->SetURL(base); }

    // The end of the query: its one signal.
    QStringList Outcome()
    {
        if (!QTest::qWaitFor([this] { return !trace.Lines().isEmpty(); }, waitMs))
            return {"(nothing)"};
        return trace.Lines();
    }

    QNetworkAccessManager manager;
    kxtest::LogCapture log;
    std::unique_ptr<Version> version = std::make_unique<Version>(&manager, nullptr);
    kxtest::SignalTrace trace{version.get()};
};

} // namespace

/** The query for the latest version. */
class TestVersionQuery : public QObject
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
    void ServiceIsConfiguredOnceAtConstruction();
    void WithoutManagerEveryOperationSaysSo();
    void BaseUrlIsFollowedByTheReplysName_data();
    void BaseUrlIsFollowedByTheReplysName();
    void ReplyYieldsTheWholeText_data();
    void ReplyYieldsTheWholeText();
    void SuccessIsLoggedStepByStep();
    void BadRepliesFailAfterThreeSends_data();
    void BadRepliesFailAfterThreeSends();
    void FailedParseKeepsTheEarlierVersion();
    void DeepestNestingIsRead();
    void ThreeErrorsFailWithTheLastOne();
    void TwoErrorsAreForgiven();
    void RetryWaitsForTheDelay();
    void RefusedSendFailsAtOnce();
    void RefusedRetryFails();
    void GetWhileRunningIsRefusedAndCountsNoTry();
    void OlderReplyIsAskedForOnceMore_data();
    void OlderReplyIsAskedForOnceMore();
    void ReCheckIsLoggedAndAcceptedWhateverItSays();
    void ReCheckUsesUpOneTry();
    void ReCheckHappensEvenOnTheLastTry();
    void GetAfterReCheckSendsThePlainUrl();
    void QueryOfTheBaseUrlIsDropped();
    void PackageNameTakesNoPart();
    void AbortEndsTheRequestSilently();
    void AbortDropsThePendingRetry();
    void GetDropsThePendingRetry();
    void GetFromInsideFailedStartsAnew();
    void GetFromInsideReadyStartsAnew();
    void DeletionInsideASignalIsSafe_data();
    void DeletionInsideASignalIsSafe();
    void DeletionDropsThePendingRetry();
    void DestructorDeletesTheRequest();
    void ReplyAfterTheRequestWasLostFails();
    void MessagesNameTheirFunction();
    void PublishedOrderIsKept();
};

void TestVersionQuery::RetriesWaitFiveSecondsAsShipped()
{
    QCOMPARE(shippedDelay, 5000);
}

void TestVersionQuery::ServiceIsConfiguredOnceAtConstruction()
{
    QNetworkAccessManager manager;
    const Version version(&manager, nullptr);
    QCOMPARE(FakeServices::calls, (QStringList{"CreateHttpRequest", "request1 SetIntParameter 30",
                                               "request1 SetBoolParameter 1"}));
    QCOMPARE(FakeServices::requests.first()->parent(), &version);
}

void TestVersionQuery::WithoutManagerEveryOperationSaysSo()
{
    kxtest::LogCapture log;
    Version version(nullptr, nullptr);
    kxtest::SignalTrace trace(&version);
    QCOMPARE(log.Lines(), QStringList{"updater.version 2 Failed to create request!"});
    log.Clear();
    version.SetURL(base);
    QCOMPARE(log.Lines(), QStringList{"updater.version 2 Failed to set URL!"});
    QCOMPARE(version.URL(), QString());
    log.Clear();
    version.Abort();
    QVERIFY(!version.Get());
    QCOMPARE(log.Lines(), (QStringList{"updater.version 7 Sending version request...",
                                       "updater.version 2 Request is not created!"}));
    QCOMPARE(trace.Lines(), QStringList{"failed(600100, Request is not created!)"});
}

void TestVersionQuery::BaseUrlIsFollowedByTheReplysName_data()
{
    QTest::addColumn<QString>("base");
    QTest::addColumn<QString>("url");

    QTest::newRow("plain") << "https://h/app/packages"
                           << "https://h/app/packages/version.xml";
    QTest::newRow("slash at the end") << "http://h:81/"
                                      << "http://h:81//version.xml";
    QTest::newRow("blank") << "http://h/a b"
                           << "http://h/a b/version.xml";
    QTest::newRow("not ASCII") << QString::fromUtf8("http://h/größe")
                               << QString::fromUtf8("http://h/größe/version.xml");
    QTest::newRow("empty") << ""
                           << "/version.xml";
}

void TestVersionQuery::BaseUrlIsFollowedByTheReplysName()
{
    QFETCH(QString, base);
    QFETCH(QString, url);
    Query query;
    query.version->SetURL(base);
    QCOMPARE(query.version->URL(), url);
}

void TestVersionQuery::ReplyYieldsTheWholeText_data()
{
    QTest::addColumn<QString>("reply");
    QTest::addColumn<QString>("version");

    QTest::newRow("bare") << "<version>2.4.1</version>"
                          << "2.4.1";
    QTest::newRow("declaration") << "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
                                    "<version>2.4.1</version>\n"
                                 << "2.4.1";
    QTest::newRow("foreign encoding is not consulted")
        << QString::fromUtf8("<?xml version=\"1.0\" encoding=\"iso-8859-1\"?>"
                             "<version>2 größe</version>")
        << QString::fromUtf8("2 größe");
    QTest::newRow("not trimmed") << "<version> 2.4 \n</version>"
                                 << " 2.4 \n";
    QTest::newRow("empty") << "<version></version>"
                           << "";
    QTest::newRow("empty element") << "<version/>"
                                   << "";
    QTest::newRow("attributes are ignored") << "<version name=\"9\">2</version>"
                                            << "2";
    QTest::newRow("text of children counts") << "<version>2<b>.4<c>.1</c></b></version>"
                                             << "2.4.1";
    QTest::newRow("comments do not count") << "<!-- 8 --><version>2<!-- 9 -->.4</version>"
                                           << "2.4";
    QTest::newRow("character data") << "<version><![CDATA[2<4]]></version>"
                                    << "2<4";
    QTest::newRow("built-in entities") << "<version>&lt;&#50;&amp;</version>"
                                       << "<2&";
    QTest::newRow("any text") << "<version>no number</version>"
                              << "no number";
}

void TestVersionQuery::ReplyYieldsTheWholeText()
{
    QFETCH(QString, reply);
    QFETCH(QString, version);
    FakeServices::Answer("version.xml", {FakeServices::Body(reply)});
    Query query;
    QVERIFY(query.version->Get());
    QCOMPARE(query.Outcome(), QStringList{"ready()"});
    QCOMPARE(query.version->VersionString(), version);
}

void TestVersionQuery::SuccessIsLoggedStepByStep()
{
    FakeServices::Answer("version.xml", {FakeServices::Body(Reply("2.0"))});
    Query query;
    query.version->Get();
    QCOMPARE(query.Outcome(), QStringList{"ready()"});
    QCOMPARE(query.log.Lines(), (QStringList{"updater.version 7 Sending version request...",
                                             "updater.version 7 Request finished!"}));
    QCOMPARE(FakeServices::Calls("request1 Send"), QStringList{plain});
}

void TestVersionQuery::BadRepliesFailAfterThreeSends_data()
{
    QTest::addColumn<QString>("reply");
    QTest::addColumn<QString>("reason");

    const QString content = "updater.version 3 Failed to set XML content!";
    const QString root = "updater.version 3 Can't find root XML element!";
    QTest::newRow("empty") << "" << content;
    QTest::newRow("no XML") << "2.4.1" << content;
    QTest::newRow("cut short") << "<version>2.4" << content;
    QTest::newRow("web page") << "<!DOCTYPE html><html><br></html>" << content;
    QTest::newRow("two roots") << "<version>1</version><version>2</version>" << content;
    QTest::newRow("undeclared entity") << "<version>&v;</version>" << content;
    QTest::newRow("declared entity")
        << "<!DOCTYPE version [<!ENTITY v \"9.9\">]><version>&v;</version>" << content;
    QTest::newRow("declared entity, not used")
        << "<!DOCTYPE version [<!ENTITY v \"9.9\">]><version>2</version>" << content;
    QTest::newRow("declared external entity")
        << "<!DOCTYPE version [<!ENTITY v SYSTEM \"file:///etc/passwd\">]><version>&v;</version>"
        << content;
    QTest::newRow("declared parameter entity")
        << "<!DOCTYPE version [<!ENTITY % p \"x\">]><version>2</version>" << content;
    QTest::newRow("257 levels") << Nested(257) << content;
    QTest::newRow("100,000 levels") << Nested(100'000) << content;
    QTest::newRow("other case") << "<Version>2.4.1</Version>" << root;
    QTest::newRow("other root") << "<packages><version>2</version></packages>" << root;
}

void TestVersionQuery::BadRepliesFailAfterThreeSends()
{
    QFETCH(QString, reply);
    QFETCH(QString, reason);
    const FakeServices::Reply bad = FakeServices::Body(reply);
    FakeServices::Answer("version.xml", {bad, bad, bad, FakeServices::Body(Reply("2.0"))});
    Query query;
    query.version->Get();
    QCOMPARE(query.Outcome(), QStringList{"failed(600103, Failed to parse reply!)"});
    QCOMPARE(FakeServices::Calls("request1 Send"), (QStringList{plain, plain, plain}));

    const QStringList once{"updater.version 7 Sending version request...",
                           "updater.version 7 Request finished!", reason,
                           "updater.version 2 Failed to parse reply!"};
    const QStringList retry{"updater.version 7 Retrying request by timer..."};
    QCOMPARE(query.log.Lines(),
             once + retry + once + retry + once +
                 QStringList{"updater.version 3 Can't retry request - no more tries!"});
}

void TestVersionQuery::FailedParseKeepsTheEarlierVersion()
{
    FakeServices::Answer("version.xml", {FakeServices::Body(Reply("2.0"))});
    for (int i = 0; i < 3; ++i)
        FakeServices::Answer("version.xml", {FakeServices::Body("<other/>")});
    Query query;
    query.version->Get();
    QCOMPARE(query.Outcome(), QStringList{"ready()"});
    query.trace.Clear();
    query.version->Get();
    QCOMPARE(query.Outcome(), QStringList{"failed(600103, Failed to parse reply!)"});
    QCOMPARE(query.version->VersionString(), QString("2.0"));
}

void TestVersionQuery::DeepestNestingIsRead()
{
    FakeServices::Answer("version.xml", {FakeServices::Body(Nested(256))});
    Query query;
    query.version->Get();
    QCOMPARE(query.Outcome(), QStringList{"ready()"});
    QCOMPARE(query.version->VersionString(), QString("2.0"));
}

void TestVersionQuery::ThreeErrorsFailWithTheLastOne()
{
    FakeServices::Answer("version.xml",
                         {FakeServices::Failure(1, "one"), FakeServices::Failure(2, "two"),
                          FakeServices::Failure(-3, "three"), FakeServices::Body(Reply("2.0"))});
    Query query;
    query.version->Get();
    QCOMPARE(query.Outcome(), QStringList{"failed(-3, three)"});
    QCOMPARE(FakeServices::Calls("request1 Send"), (QStringList{plain, plain, plain}));
    QCOMPARE(query.log.Lines(),
             (QStringList{"updater.version 7 Sending version request...",
                          "updater.version 3 Request failed with error '1'.",
                          "updater.version 7 Retrying request by timer...",
                          "updater.version 7 Sending version request...",
                          "updater.version 3 Request failed with error '2'.",
                          "updater.version 7 Retrying request by timer...",
                          "updater.version 7 Sending version request...",
                          "updater.version 3 Request failed with error '-3'.",
                          "updater.version 3 Can't retry request - no more tries!"}));
}

void TestVersionQuery::TwoErrorsAreForgiven()
{
    FakeServices::Answer("version.xml",
                         {FakeServices::Failure(1, "one"), FakeServices::Body("no version"),
                          FakeServices::Body(Reply("2.0"))});
    Query query;
    query.version->Get();
    QCOMPARE(query.Outcome(), QStringList{"ready()"});
    QCOMPARE(query.version->VersionString(), QString("2.0"));
}

void TestVersionQuery::RetryWaitsForTheDelay()
{
    updater::internal::SetRetryDelay(3'600'000);
    FakeServices::Answer("version.xml", {FakeServices::Failure(1, "one")});
    Query query;
    query.version->Get();
    QTRY_VERIFY_WITH_TIMEOUT(query.log.Contains("updater.version 7 Retrying request by timer..."),
                             waitMs);
    kxtest::PassTimersOf(20);
    QCOMPARE(FakeServices::Calls("request1 Send"), QStringList{plain});
    QCOMPARE(query.trace.Lines(), QStringList{});
}

void TestVersionQuery::RefusedSendFailsAtOnce()
{
    FakeServices::Answer("version.xml", {FakeServices::Refusal()});
    Query query;
    QVERIFY(!query.version->Get());
    QCOMPARE(query.trace.Lines(), QStringList{"failed(600102, Failed to send request!)"});
    QCOMPARE(query.log.Lines(), (QStringList{"updater.version 7 Sending version request...",
                                             "updater.version 2 Failed to send request!"}));
    kxtest::PassTimersOf(20);
    QCOMPARE(FakeServices::Calls("request1 Send"), QStringList{plain});
}

void TestVersionQuery::RefusedRetryFails()
{
    FakeServices::Answer("version.xml", {FakeServices::Failure(1, "one"), FakeServices::Refusal()});
    Query query;
    query.version->Get();
    QCOMPARE(query.Outcome(), QStringList{"failed(600102, Failed to send request!)"});
}

void TestVersionQuery::GetWhileRunningIsRefusedAndCountsNoTry()
{
    FakeServices::Answer("version.xml",
                         {FakeServices::Silence(), FakeServices::Failure(2, "two"),
                          FakeServices::Failure(3, "three"), FakeServices::Failure(4, "four"),
                          FakeServices::Body(Reply("2.0"))});
    Query query;
    QVERIFY(query.version->Get());
    query.log.Clear();
    QVERIFY(!query.version->Get());
    QCOMPARE(query.log.Lines(), (QStringList{"updater.version 7 Sending version request...",
                                             "updater.version 2 Request already running!"}));
    QCOMPARE(query.trace.Lines(), QStringList{});
    QCOMPARE(FakeServices::Calls("request1 Abort"), QStringList{});
    // The second Get() has three tries of its own, none of them used by the refused send.
    FakeServices::requests.first()->Fail(1, "one");
    QCOMPARE(query.Outcome(), QStringList{"failed(4, four)"});
    QCOMPARE(FakeServices::Calls("request1 Send").size(), 4);
}

void TestVersionQuery::OlderReplyIsAskedForOnceMore_data()
{
    QTest::addColumn<QString>("current");
    QTest::addColumn<QString>("received");
    QTest::addColumn<bool>("again");

    QTest::newRow("older") << "3.0"
                           << "2.9" << true;
    QTest::newRow("same") << "3.0"
                          << "3.0" << false;
    QTest::newRow("same, written differently") << "3.0.0"
                                               << "3.0" << false;
    QTest::newRow("newer") << "2.9"
                           << "3.0" << false;
    QTest::newRow("compared as numbers") << "1.9"
                                         << "1.10" << false;
    QTest::newRow("candidate of the installed one") << "2.0"
                                                    << "2.0-rc1" << true;
    QTest::newRow("empty reply") << "1.0"
                                 << "" << true;
    QTest::newRow("no installed version") << ""
                                          << "1.0" << false;
    QTest::newRow("neither") << ""
                             << "" << false;
}

void TestVersionQuery::OlderReplyIsAskedForOnceMore()
{
    QFETCH(QString, current);
    QFETCH(QString, received);
    QFETCH(bool, again);
    const FakeServices::Reply reply = FakeServices::Body(Reply(received));
    FakeServices::Answer("version.xml", {reply, reply, reply});
    Query query;
    query.version->SetCurrentVersion(current);
    query.version->Get();
    QCOMPARE(query.Outcome(), QStringList{"ready()"});
    QCOMPARE(FakeServices::Calls("request1 Send").size(), again ? 2 : 1);
    QCOMPARE(query.version->VersionString(), received);
}

void TestVersionQuery::ReCheckIsLoggedAndAcceptedWhateverItSays()
{
    FakeServices::Answer("version.xml",
                         {FakeServices::Body(Reply("2.9")), FakeServices::Body(Reply("2.8"))});
    Query query;
    query.version->SetCurrentVersion("3.0");
    query.version->Get();
    QCOMPARE(query.Outcome(), QStringList{"ready()"});
    QCOMPARE(query.version->VersionString(), QString("2.8"));
    QCOMPARE(
        query.log.Lines(),
        (QStringList{
            "updater.version 7 Sending version request...", "updater.version 7 Request finished!",
            "updater.version 7 Current version is greater than received, re-check: 3.0 > 2.9",
            "updater.version 7 Sending version request...",
            "updater.version 7 Request finished!"}));
    const QStringList sends = FakeServices::Calls("request1 Send");
    QCOMPARE(sends.size(), 2);
    QCOMPARE(sends.first(), QString(plain));
    const QRegularExpression random("^" + QRegularExpression::escape(plain) +
                                    "\\?id=[0-9a-f]{32}$");
    QVERIFY2(random.match(sends.last()).hasMatch(), qPrintable(sends.last()));
}

void TestVersionQuery::ReCheckUsesUpOneTry()
{
    FakeServices::Answer("version.xml",
                         {FakeServices::Body(Reply("2.9")), FakeServices::Failure(1, "one"),
                          FakeServices::Failure(2, "two"), FakeServices::Body(Reply("2.9"))});
    Query query;
    query.version->SetCurrentVersion("3.0");
    query.version->Get();
    QCOMPARE(query.Outcome(), QStringList{"failed(2, two)"});
    const QStringList sends = FakeServices::Calls("request1 Send");
    QCOMPARE(sends.size(), 3);
    QVERIFY(sends.at(1).contains("?id="));
    // A retry of the re-check asks for the same thing again.
    QCOMPARE(sends.at(2), sends.at(1));
}

void TestVersionQuery::ReCheckHappensEvenOnTheLastTry()
{
    FakeServices::Answer("version.xml",
                         {FakeServices::Failure(1, "one"), FakeServices::Failure(2, "two"),
                          FakeServices::Body(Reply("2.9")), FakeServices::Body(Reply("3.1"))});
    Query query;
    query.version->SetCurrentVersion("3.0");
    query.version->Get();
    QCOMPARE(query.Outcome(), QStringList{"ready()"});
    QCOMPARE(query.version->VersionString(), QString("3.1"));
}

void TestVersionQuery::GetAfterReCheckSendsThePlainUrl()
{
    const FakeServices::Reply reply = FakeServices::Body(Reply("2.9"));
    FakeServices::Answer("version.xml", {reply, reply, reply, reply});
    Query query;
    query.version->SetCurrentVersion("3.0");
    query.version->Get();
    QCOMPARE(query.Outcome(), QStringList{"ready()"});
    QVERIFY(query.version->URL().contains("?id="));
    query.trace.Clear();
    query.version->Get();
    QCOMPARE(query.version->URL(), QString("https://example.org/packages/version.xml"));
    QCOMPARE(query.Outcome(), QStringList{"ready()"});
    const QStringList sends = FakeServices::Calls("request1 Send");
    QCOMPARE(sends.size(), 4);
    QCOMPARE(sends.at(2), QString(plain));
    QVERIFY(sends.at(3).contains("?id="));
    QVERIFY(sends.at(3) != sends.at(1));
}

void TestVersionQuery::QueryOfTheBaseUrlIsDropped()
{
    FakeServices::Answer("packages", {FakeServices::Body(Reply("2.0"))});
    Query query;
    query.version->SetURL("https://example.org/packages?key=value");
    query.version->Get();
    QCOMPARE(query.Outcome(), QStringList{"ready()"});
    QCOMPARE(FakeServices::Calls("request1 Send"),
             QStringList{"request1 Send https://example.org/packages"});
}

void TestVersionQuery::PackageNameTakesNoPart()
{
    FakeServices::Answer("version.xml", {FakeServices::Body(Reply("2.0"))});
    Query query;
    QCOMPARE(query.version->PackageName(), QString());
    query.version->SetPackageName("demo");
    QCOMPARE(query.version->PackageName(), QString("demo"));
    query.version->Get();
    QCOMPARE(query.Outcome(), QStringList{"ready()"});
    QCOMPARE(FakeServices::Calls("request1 Send"), QStringList{plain});
}

void TestVersionQuery::AbortEndsTheRequestSilently()
{
    Query query;
    query.version->Get();
    query.log.Clear();
    query.version->Abort();
    QCOMPARE(FakeServices::Calls("request1 Abort").size(), 1);
    kxtest::PassTimersOf(20);
    QCOMPARE(query.trace.Lines(), QStringList{});
    QCOMPARE(query.log.Lines(), QStringList{});
    QVERIFY(query.version->Get());
}

void TestVersionQuery::AbortDropsThePendingRetry()
{
    updater::internal::SetRetryDelay(10);
    FakeServices::Answer("version.xml", {FakeServices::Failure(1, "one")});
    Query query;
    query.version->Get();
    QTRY_VERIFY_WITH_TIMEOUT(query.log.Contains("updater.version 7 Retrying request by timer..."),
                             waitMs);
    query.version->Abort();
    kxtest::PassTimersOf(30);
    QCOMPARE(FakeServices::Calls("request1 Send"), QStringList{plain});
    QCOMPARE(query.trace.Lines(), QStringList{});
}

void TestVersionQuery::GetDropsThePendingRetry()
{
    updater::internal::SetRetryDelay(10);
    FakeServices::Answer("version.xml", {FakeServices::Failure(1, "one"), FakeServices::Silence()});
    Query query;
    query.version->Get();
    QTRY_VERIFY_WITH_TIMEOUT(query.log.Contains("updater.version 7 Retrying request by timer..."),
                             waitMs);
    QVERIFY(query.version->Get());
    kxtest::PassTimersOf(30);
    QCOMPARE(FakeServices::Calls("request1 Send"), (QStringList{plain, plain}));
    QVERIFY(!query.log.Contains("updater.version 2 Request already running!"));
}

void TestVersionQuery::GetFromInsideFailedStartsAnew()
{
    FakeServices::Answer("version.xml",
                         {FakeServices::Failure(1, "one"), FakeServices::Failure(1, "one"),
                          FakeServices::Failure(1, "one"), FakeServices::Failure(2, "two"),
                          FakeServices::Body(Reply("2.0"))});
    Query query;
    query.trace.SetHook([&](const QString& line) {
        if (line == "failed(1, one)")
            QVERIFY(query.version->Get());
    });
    query.version->Get();
    QTRY_COMPARE_WITH_TIMEOUT(query.trace.Lines(), (QStringList{"failed(1, one)", "ready()"}),
                              waitMs);
    QCOMPARE(FakeServices::Calls("request1 Send").size(), 5);
}

void TestVersionQuery::GetFromInsideReadyStartsAnew()
{
    FakeServices::Answer("version.xml",
                         {FakeServices::Body(Reply("2.0")), FakeServices::Body(Reply("2.1"))});
    Query query;
    query.trace.SetHook([&](const QString&) {
        if (query.version->VersionString() == "2.0")
            QVERIFY(query.version->Get());
    });
    query.version->Get();
    QTRY_COMPARE_WITH_TIMEOUT(query.trace.Lines(), (QStringList{"ready()", "ready()"}), waitMs);
    QCOMPARE(query.version->VersionString(), QString("2.1"));
}

void TestVersionQuery::DeletionInsideASignalIsSafe_data()
{
    QTest::addColumn<QString>("reply");
    QTest::addColumn<bool>("refuse");
    QTest::addColumn<QString>("signal");

    QTest::newRow("ready") << Reply("2.0") << false << "ready()";
    QTest::newRow("reply does not parse")
        << "<x/>" << false << "failed(600103, Failed to parse reply!)";
    QTest::newRow("request fails") << "" << false << "failed(1, one)";
    QTest::newRow("send refused") << "" << true << "failed(600102, Failed to send request!)";
}

void TestVersionQuery::DeletionInsideASignalIsSafe()
{
    QFETCH(QString, reply);
    QFETCH(bool, refuse);
    QFETCH(QString, signal);
    FakeServices::Reply answer = FakeServices::Body(reply);
    if (refuse)
        answer = FakeServices::Refusal();
    else if (reply.isEmpty())
        answer = FakeServices::Failure(1, "one");
    FakeServices::Answer("version.xml", {answer, answer, answer});
    Query query;
    query.trace.SetHook([&](const QString&) { query.version.reset(); });
    query.version->Get();
    QCOMPARE(query.Outcome(), QStringList{signal});
    kxtest::PassTimersOf(20);
    QVERIFY(!query.version);
    QVERIFY(!FakeServices::requests.first());
    QCOMPARE(query.trace.Lines(), QStringList{signal});
}

void TestVersionQuery::DeletionDropsThePendingRetry()
{
    updater::internal::SetRetryDelay(10);
    FakeServices::Answer("version.xml", {FakeServices::Failure(1, "one")});
    Query query;
    query.version->Get();
    QTRY_VERIFY_WITH_TIMEOUT(query.log.Contains("updater.version 7 Retrying request by timer..."),
                             waitMs);
    query.version.reset();
    kxtest::PassTimersOf(30);
    QCOMPARE(FakeServices::Calls("request1 Send"), QStringList{plain});
}

void TestVersionQuery::DestructorDeletesTheRequest()
{
    Query query;
    query.version->Get();
    query.log.Clear();
    FakeServices::calls.clear();
    query.version.reset();
    QCOMPARE(query.log.Lines(), QStringList{"updater.version 7 destroyed."});
    QCOMPARE(query.log.Last().function, QString("updater::Version::~Version"));
    QCOMPARE(FakeServices::calls, QStringList{"request1 deleted"});
    QCOMPARE(query.trace.Lines(), QStringList{});
}

void TestVersionQuery::ReplyAfterTheRequestWasLostFails()
{
    Version version(nullptr, nullptr);
    kxtest::LogCapture log;
    kxtest::SignalTrace trace(&version);
    QVERIFY(QMetaObject::invokeMethod(&version, "OnRequestFinished",
                                      Q_ARG(QString, "<version>1</version>")));
    QCOMPARE(trace.Lines(), QStringList{"failed(600103, Request is null, failed to parse reply)"});
    QCOMPARE(log.Lines(),
             (QStringList{"updater.version 7 Request finished!",
                          "updater.version 2 Request is null, failed to parse reply"}));
}

void TestVersionQuery::MessagesNameTheirFunction()
{
    FakeServices::Answer("version.xml", {FakeServices::Failure(1, "one"),
                                         FakeServices::Body("<x/>"), FakeServices::Silence()});
    Query query;
    query.version->Get();
    QTRY_COMPARE_WITH_TIMEOUT(FakeServices::Calls("request1 Send").size(), 3, waitMs);
    QStringList functions;
    for (const kxtest::LogRecord& record : query.log.Records()) {
        QVERIFY(record.function.startsWith("updater::Version::"));
        QVERIFY(record.line > 0 && record.file.endsWith(".cpp"));
        functions << record.function.mid(18);
    }
    QCOMPARE(functions, (QStringList{"SendRequest", "OnRequestError", "Retry", "SendRequest",
                                     "OnRequestFinished", "ParseReply", "OnRequestFinished",
                                     "Retry", "SendRequest"}));
}

void TestVersionQuery::PublishedOrderIsKept()
{
    using kxtest::VtableIndex;
    const int first = kxtest::firstAfterQObject;
    QCOMPARE(VtableIndex(&Version::Get), first);
    QCOMPARE(VtableIndex(&Version::Abort), first + 1);
    QCOMPARE(VtableIndex(&Version::URL), first + 2);
    QCOMPARE(VtableIndex(&Version::SetURL), first + 3);
    QCOMPARE(VtableIndex(&Version::PackageName), first + 4);
    QCOMPARE(VtableIndex(&Version::SetPackageName), first + 5);
    QCOMPARE(VtableIndex(&Version::VersionString), first + 6);
    QCOMPARE(VtableIndex(&Version::SetCurrentVersion), -1);

    const QMetaObject& meta = Version::staticMetaObject;
    QCOMPARE(QString(meta.className()), QString("updater::Version"));
    QStringList signatures;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
        signatures << meta.method(i).methodSignature();
    signatures.sort();
    QCOMPARE(signatures,
             (QStringList{"Abort()", "OnRequestError(int,QString)", "OnRequestFinished(QString)",
                          "SendRequest()", "SetCurrentVersion(QString)", "failed(int,QString)",
                          "ready()"}));
}

QTEST_GUILESS_MAIN(TestVersionQuery)
#include "tst_versionquery.moc"
