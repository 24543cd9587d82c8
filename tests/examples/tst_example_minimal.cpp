// Runs the smallest host as a user would: against a server, on a directory.

#include "httptestserver.h"
#include "manifest.h"
#include "treebuilder.h"

#include <kxupdater/build.h>

#include <QProcess>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

class TestExampleMinimal : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void InstallsWhatTheServerHas();
    void LeavesAnActualTreeAlone();
    void ReportsWhatFailedAndLeavesTheTreeAlone();

private:
    void RunMinimal(const QString& version);
    QString ServerUrl() const;

    std::unique_ptr<kxtest::HttpTestServer> server;
    std::unique_ptr<QTemporaryDir> directory;
    QString served;
    QString application;
    int exitCode = -1;
    QString output;
};

void TestExampleMinimal::init()
{
    QTest::failOnWarning(QRegularExpression(QStringLiteral("No such (signal|slot)")));
    server = std::make_unique<kxtest::HttpTestServer>();
    QVERIFY(server->IsListening());
    directory = std::make_unique<QTemporaryDir>();
    served = directory->filePath(QStringLiteral("served"));
    application = directory->filePath(QStringLiteral("app"));
    server->ServeDirectory(QStringLiteral("/"), served);

    kxtest::TreeBuilder next(directory->filePath(QStringLiteral("tree")));
    next.File(QStringLiteral("bin/app"), "new program", 0755)
        .File(QStringLiteral("share/same"), "unchanged");
    kxtest::PublishTree(served, QStringLiteral("demo"), QStringLiteral("2.0"),
                        updater::Build::Platform(), next.Root(), ServerUrl());
}

QString TestExampleMinimal::ServerUrl() const
{
    return server->Url(QString()).toString(QUrl::StripTrailingSlash);
}

void TestExampleMinimal::RunMinimal(const QString& version)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    QSignalSpy ended(&process, &QProcess::finished);
    process.start(QStringLiteral(MINIMAL),
                  {ServerUrl(), QStringLiteral("demo"), version, application,
                   directory->filePath(QStringLiteral("next"))});
    // The server lives in this event loop.
    QVERIFY(ended.count() > 0 || ended.wait(60000));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    exitCode = process.exitCode();
    output = QString::fromUtf8(process.readAll());
}

void TestExampleMinimal::InstallsWhatTheServerHas()
{
    kxtest::TreeBuilder(application)
        .File(QStringLiteral("bin/app"), "old program", 0755)
        .File(QStringLiteral("share/same"), "unchanged")
        .File(QStringLiteral("share/gone"), "not in the new version");
    RunMinimal(QStringLiteral("1.0"));
    QVERIFY2(exitCode == 0, qPrintable(output));
    QCOMPARE(kxtest::Snapshot(application),
             kxtest::Snapshot(directory->filePath(QStringLiteral("tree"))));
    QVERIFY(!kxtest::Exists(application + QStringLiteral(".old")));
}

void TestExampleMinimal::LeavesAnActualTreeAlone()
{
    kxtest::TreeBuilder(application)
        .File(QStringLiteral("bin/app"), "new program", 0755)
        .File(QStringLiteral("share/same"), "unchanged");
    RunMinimal(QStringLiteral("2.0"));
    QVERIFY2(exitCode == 0, qPrintable(output));
    QVERIFY2(!output.contains(QLatin1String("PREPARING")), qPrintable(output));
    QVERIFY(!kxtest::Exists(directory->filePath(QStringLiteral("next"))));
}

void TestExampleMinimal::ReportsWhatFailedAndLeavesTheTreeAlone()
{
    kxtest::TreeBuilder(application).File(QStringLiteral("bin/app"), "old program", 0755);
    const QStringList before = kxtest::Snapshot(application);
    kxtest::Write(served +
                      QStringLiteral("/files/demo/2.0/%1/bin/app").arg(updater::Build::Platform()),
                  "bad program");
    RunMinimal(QStringLiteral("1.0"));
    QCOMPARE(exitCode, 1);
    QVERIFY2(output.contains(QLatin1String("610209: ")), qPrintable(output));
    QCOMPARE(kxtest::Snapshot(application), before);
}

QTEST_GUILESS_MAIN(TestExampleMinimal)
#include "tst_example_minimal.moc"
