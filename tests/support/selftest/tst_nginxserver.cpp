#include "manifest.h"
#include "nginxserver.h"
#include "treebuilder.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QSignalSpy>
#include <QTest>

#include <memory>

namespace {

constexpr int waitMs = 30000;

QByteArray Fetch(QNetworkAccessManager& manager, const QString& url)
{
    const std::unique_ptr<QNetworkReply> reply(manager.get(QNetworkRequest(QUrl(url))));
    QSignalSpy finished(reply.get(), SIGNAL(finished()));
    if (!finished.wait(waitMs))
        return "(nothing)";
    return reply->readAll();
}

} // namespace

/** The real web server of the tests. */
class TestNginxServer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void NginxServesPublishedTree();
    void TwoNginxServersDoNotMeet();
};

void TestNginxServer::NginxServesPublishedTree()
{
    kxtest::TreeBuilder tree;
    kxtest::TreeBuilder root;
    tree.File("bin/app", "program", 0755).Symlink("current", "bin/app");
    // nginx may drop the rights of the test's user, and must still reach the files.
    kxtest::SetMode(root.Root(), 0755);
    kxtest::NginxServer server(root.Root());
    server.AddHeader("Cache-Control", "no-cache");
    QVERIFY2(server.Start(), qPrintable(server.Error()));
    kxtest::PublishTree(root.Root(), "demo", "2.0", "x64", tree.Root(), server.Url());

    QNetworkAccessManager manager;
    QVERIFY(Fetch(manager, server.Url("packages/version.xml")).contains(">2.0<"));
    const QByteArray manifest =
        Fetch(manager, server.Url(kxtest::ManifestPath("demo", "2.0", "x64")));
    QVERIFY(manifest.contains(server.Url("files/demo/2.0/x64").toUtf8()));
    QCOMPARE(Fetch(manager, server.Url("files/demo/2.0/x64/bin/app")), QByteArray("program"));
    QTRY_COMPARE_WITH_TIMEOUT(server.Requests().size(), 3, waitMs);
    QCOMPARE(server.Requests().last(), QString("GET /files/demo/2.0/x64/bin/app 200 7 -"));
    server.Stop();
    QCOMPARE(Fetch(manager, server.Url("packages/version.xml")), QByteArray());
}

void TestNginxServer::TwoNginxServersDoNotMeet()
{
    kxtest::TreeBuilder first;
    kxtest::TreeBuilder second;
    first.File("name", "first");
    second.File("name", "second");
    kxtest::NginxServer one(first.Root());
    kxtest::NginxServer two(second.Root());
    QVERIFY2(one.Start(), qPrintable(one.Error()));
    QVERIFY2(two.Start(), qPrintable(two.Error()));
    QNetworkAccessManager manager;
    QCOMPARE(Fetch(manager, one.Url("name")), QByteArray("first"));
    QCOMPARE(Fetch(manager, two.Url("name")), QByteArray("second"));
}

QTEST_GUILESS_MAIN(TestNginxServer)
#include "tst_nginxserver.moc"
