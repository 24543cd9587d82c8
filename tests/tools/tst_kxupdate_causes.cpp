#include "kxupdateprocess.h"
#include "updatesite.h"

#include <QTest>
#include <QUrl>

#include <memory>
#include <vector>

namespace {

const QString v1 = QStringLiteral("1.0");

} // namespace

/** Failures of the network whose cause the library's error does not tell. */
class TstKxupdateCauses : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void NetworkFailuresNameTheCause();
};

void TstKxupdateCauses::NetworkFailuresNameTheCause()
{
    // At once, because each of them is tried for ten seconds.
    UpdateSite portal;
    UpdateSite redirect;
    UpdateSite proxy;
    UpdateSite gateway;
    kxtest::Reply page = kxtest::Reply::Body("<html>Log in</html>");
    page.headers = {{"Content-Type", "text/html; charset=utf-8"}};
    portal.Server().SetDefaultReply(portal.VersionPath(), page);
    redirect.Server().SetDefaultReply(redirect.VersionPath(),
                                      kxtest::Reply::Redirect(QStringLiteral("/login")));
    redirect.Server().SetDefaultReply(QStringLiteral("/login"), page);
    proxy.Server().SetProxyAuthentication(true);
    gateway.Server().SetDefaultReply(gateway.VersionPath(), kxtest::Reply::Status(502));

    struct Run
    {
        UpdateSite* site;
        bool asProxy;
        QStringList expected;
        std::unique_ptr<KxupdateProcess> process;
    };
    const auto address = [](const UpdateSite& site) {
        return QStringLiteral("127.0.0.1:%1").arg(QUrl(site.Url()).port());
    };
    std::vector<Run> runs;
    runs.push_back({&portal, false, {"Error 600103", "is a web page", "login page"}, nullptr});
    runs.push_back({&redirect, false, {"Error 600103", "is a web page", "/login'"}, nullptr});
    runs.push_back({&proxy,
                    true,
                    {"Error 610106", "wants credentials", address(proxy), "http_proxy"},
                    nullptr});
    runs.push_back({&gateway,
                    true,
                    {"Error 610102", "status 502", "went through the proxy " + address(gateway)},
                    nullptr});
    for (Run& run : runs) {
        run.site->Install(v1);
        run.process = std::make_unique<KxupdateProcess>();
        QStringList arguments = run.site->Command(QStringLiteral("check"));
        if (run.asProxy) {
            run.process->SetVariable(QStringLiteral("http_proxy"), run.site->Url());
            arguments[arguments.indexOf(QStringLiteral("--url")) + 1] =
                QStringLiteral("http://192.0.2.1");
        }
        run.process->Start(arguments);
    }
    for (const Run& run : runs) {
        QVERIFY2(run.process->Wait(), run.process->Report());
        QVERIFY2(run.process->Status() == 6, run.process->Report());
        for (const QString& text : run.expected)
            QVERIFY2(run.process->Errors().contains(text), run.process->Report());
    }
}

QTEST_GUILESS_MAIN(TstKxupdateCauses)
#include "tst_kxupdate_causes.moc"
