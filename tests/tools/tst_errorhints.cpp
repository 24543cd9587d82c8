#include "output/errorhints.h"

#include <kxcommon/errors.h>
#include <kxupdater/errors.h>

#include <QFile>
#include <QRegularExpression>
#include <QSet>
#include <QTest>

/** What kxupdate advises after an error. */
class TstErrorHints : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void EveryDocumentedCodeHasAHint();
    void FindingsChangeTheHint_data();
    void FindingsChangeTheHint();
};

void TstErrorHints::EveryDocumentedCodeHasAHint()
{
    QFile file(QStringLiteral(KX_SOURCE_DIR "/docs/errors.md"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QRegularExpression row(QStringLiteral("^\\| (6[0-9]{5}) `"),
                                 QRegularExpression::MultilineOption);
    const QString text = QString::fromUtf8(file.readAll());
    int codes = 0;
    for (auto match = row.globalMatch(text); match.hasNext(); ++codes) {
        const int code = match.next().captured(1).toInt();
        const QString hint = ErrorHint(code, QString());
        QVERIFY2(hint.endsWith(u'.') || hint.endsWith(u'?'),
                 qPrintable(QStringLiteral("%1: %2").arg(code).arg(hint)));
    }
    QVERIFY(codes > 60);
    // A code of somebody else's is not guessed at.
    QCOMPARE(ErrorHint(1, QString()), QString());
}

void TstErrorHints::FindingsChangeTheHint_data()
{
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("webPage");
    QTest::addColumn<QString>("proxy");
    QTest::addColumn<QString>("expected");   // part of the hint
    QTest::addColumn<QString>("unexpected"); // none of it; empty: anything goes

    const QString page = QStringLiteral("http://login.test/");
    const QString proxy = QStringLiteral("10.0.0.1:3128");
    const auto row = [](const char* name, int code, const QString& text, const QString& webPage,
                        const QString& through, const QString& expected,
                        const QString& unexpected) {
        QTest::newRow(name) << code << text << webPage << through << expected << unexpected;
    };
    row("web page for the version", updater::VersionParseFailed, "", page, "", "login page", "");
    row("web page for the manifest", updater::PackageParseFailed, "", page, "", page, "");
    row("no web page", updater::VersionParseFailed, "", "", "", "--url", "login page");
    row("web page for a file", common::DownloadDigest, "", page, "", "login page", "");
    row("file that is a web page", common::DownloadDigest, "", page + "help.html", "",
        "another file", "login page");
    row("web page and a full disk", common::DownloadNoSpace, "", page, "", "Free some",
        "login page");
    row("login wanted by status", common::HttpRequestStatus, "answered with status 511", "", "",
        "Log in", "");

    row("timeout through a proxy", common::HttpRequestTimeout, "", "", proxy, proxy, "");
    row("timeout without", common::HttpRequestTimeout, "", "", "", "answer", "proxy");
    row("gateway status through a proxy", common::DownloadStatus, "status 502", "", proxy, proxy,
        "");
    row("missing file through a proxy", common::DownloadStatus, "status 404", "", proxy,
        "does not have", proxy);
    row("proxy that the error names", common::DownloadProxy, "the proxy '10.0.0.1:3128' failed", "",
        proxy, "http_proxy", proxy);
    row("full disk through a proxy", common::DownloadNoSpace, "", "", proxy, "Free some", proxy);

    row("version missing", common::HttpRequestStatus, "a/version.xml': status 404", "", "",
        "Is --url right?", "");
    row("manifest missing", common::HttpRequestStatus, "a/index.xml': status 404", "", "",
        "Is --package right?", "");
    row("server that fails", common::HttpRequestStatus, "a/index.xml': status 500", "", "",
        "Try again", "--package");
}

void TstErrorHints::FindingsChangeTheHint()
{
    QFETCH(int, code);
    QFETCH(QString, text);
    QFETCH(QString, webPage);
    QFETCH(QString, proxy);
    QFETCH(QString, expected);
    QFETCH(QString, unexpected);
    const QString hint = ErrorHint(code, text, {webPage, proxy});
    QVERIFY2(hint.contains(expected), qPrintable(hint));
    QVERIFY2(unexpected.isEmpty() || !hint.contains(unexpected), qPrintable(hint));
}

QTEST_GUILESS_MAIN(TstErrorHints)
#include "tst_errorhints.moc"
