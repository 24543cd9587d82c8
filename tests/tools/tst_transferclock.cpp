#include "httptestserver.h"
#include "transfertuning.h"

#include "kxupdate/network/transferclock.h"

#include <kxcommon/errors.h>
#include <kxcommon/ihttprequest.h>

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QSignalSpy>
#include <QTest>

namespace {

/** Gives every request a clock of `seconds`, as the tool does. */
class ClockedManager : public QNetworkAccessManager
{
    Q_OBJECT
public:
    explicit ClockedManager(int seconds) : seconds(seconds) {}

    TransferClock* clock = nullptr;
    QNetworkReply* reply = nullptr;

protected:
    QNetworkReply* createRequest(Operation operation, const QNetworkRequest& request,
                                 QIODevice* body) override
    {
        reply = QNetworkAccessManager::createRequest(operation, request, body);
        clock = new TransferClock(reply, seconds);
        return reply;
    }

private:
    const int seconds;
};

} // namespace

/** The tool's own limit for silence stands above and below the library's. */
class TstTransferClock : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void LongerThanTheLibrarysOwn();
    void ShorterThanTheLibrarysOwn();
};

void TstTransferClock::LongerThanTheLibrarysOwn()
{
    kxtest::HttpTestServer server;
    server.SetDefaultReply(QStringLiteral("/a"), kxtest::Reply::Hold());
    // The library's 30 seconds take 1.5 here; two of the clock's are more.
    const int unit = common::http::Tuning().timeoutUnitMs;
    common::http::Tuning().timeoutUnitMs = 50;
    ClockedManager manager(3600);
    const std::unique_ptr<common::http::IHttpRequest> request(
        common::http::CreateHttpRequest(&manager, nullptr));
    request->SetUrl(server.Url(QStringLiteral("/a")));
    request->SetIntParameter(30);
    QSignalSpy failed(request.get(), SIGNAL(requestError(int, const QString&)));
    QSignalSpy finished(request.get(), SIGNAL(requestFinished(const QString&)));
    QVERIFY(request->Send());
    QSignalSpy alive(manager.reply, SIGNAL(metaDataChanged()));
    QTRY_VERIFY_WITH_TIMEOUT(alive.count() >= 3 || failed.count() > 0, 60000);
    QCOMPARE(failed.count(), 0);
    server.ReleaseStalled();
    QTRY_VERIFY_WITH_TIMEOUT(finished.count() + failed.count() == 1, 60000);
    common::http::Tuning().timeoutUnitMs = unit;
}

void TstTransferClock::ShorterThanTheLibrarysOwn()
{
    kxtest::HttpTestServer server;
    server.SetDefaultReply(QStringLiteral("/a"), kxtest::Reply::Hold());
    ClockedManager manager(1);
    const std::unique_ptr<common::http::IHttpRequest> request(
        common::http::CreateHttpRequest(&manager, nullptr));
    request->SetUrl(server.Url(QStringLiteral("/a")));
    request->SetIntParameter(3600);
    QSignalSpy failed(request.get(), SIGNAL(requestError(int, const QString&)));
    QVERIFY(request->Send());
    QSignalSpy expired(manager.clock, SIGNAL(expired()));
    QTRY_VERIFY_WITH_TIMEOUT(failed.count() == 1, 60000);
    QCOMPARE(failed.first().first().toInt(), int(common::HttpRequestTimeout));
    QCOMPARE(expired.count(), 1);
}

QTEST_GUILESS_MAIN(TstTransferClock)
#include "tst_transferclock.moc"
