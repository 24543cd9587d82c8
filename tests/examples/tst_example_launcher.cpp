// Runs the launcher of the examples on directories as an install, or the end of one, leaves them.

#include "treebuilder.h"

#include <kxguard/filelock.h>

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <sys/inotify.h>
#include <unistd.h>

class TestExampleLauncher : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void ProgramTakesItsPlace();
    void ProgramThatWasMovedAsideIsPutBackAndStarted();
    void NothingIsStartedWhereNothingIs();
    void WaitsForAnInstallThatIsUnderWay();
    void RemainsThatCannotBeClearedKeepNobodyFromStarting();
    void BadCommandLinesAreRefused();

private:
    void Program(const QString& directory, const QByteArray& text);
    void Start(const QStringList& arguments = {});
    void Finish();

    std::unique_ptr<QTemporaryDir> directory;
    QString application;
    std::unique_ptr<QProcess> process;
    QByteArray out;
    QByteArray err;
};

void TestExampleLauncher::init()
{
    directory = std::make_unique<QTemporaryDir>();
    application = directory->filePath(QStringLiteral("app"));
    process = std::make_unique<QProcess>();
}

void TestExampleLauncher::Program(const QString& directory, const QByteArray& text)
{
    kxtest::TreeBuilder(directory).File(QStringLiteral("bin/program"),
                                        "#!/bin/sh\necho \"" + text + "\"\nexit 7\n", 0755);
}

void TestExampleLauncher::Start(const QStringList& arguments)
{
    process->start(QStringLiteral(LAUNCHER),
                   QStringList{application, QStringLiteral("bin/program")} + arguments);
    QVERIFY(process->waitForStarted());
}

void TestExampleLauncher::Finish()
{
    QVERIFY(process->state() == QProcess::NotRunning || process->waitForFinished(60000));
    QCOMPARE(process->exitStatus(), QProcess::NormalExit);
    out = process->readAllStandardOutput().trimmed();
    err = process->readAllStandardError();
}

void TestExampleLauncher::ProgramTakesItsPlace()
{
    Program(application, "$$ $1 $2");
    Start({QStringLiteral("two words"), QStringLiteral("ü")});
    const QByteArray expected = QByteArray::number(process->processId()) + " two words ü";
    Finish();
    QCOMPARE(out, expected);
    QCOMPARE(process->exitCode(), 7);
    QCOMPARE(err, QByteArray());
}

void TestExampleLauncher::ProgramThatWasMovedAsideIsPutBackAndStarted()
{
    Program(application + QStringLiteral(".old"), "old");
    Start();
    Finish();
    QCOMPARE(out, QByteArray("old"));
    QVERIFY(!kxtest::Exists(application + QStringLiteral(".old")));
}

void TestExampleLauncher::NothingIsStartedWhereNothingIs()
{
    Start();
    Finish();
    QCOMPARE(process->exitCode(), 1);
    QVERIFY2(err.contains(QFile::encodeName(application)), err.constData());
    QVERIFY(!kxtest::Exists(application));
}

void TestExampleLauncher::WaitsForAnInstallThatIsUnderWay()
{
    Program(application + QStringLiteral(".old"), "old");
    guard::FileLock lock(guard::ApplicationLockPath(application));
    QCOMPARE(lock.Take(), guard::FileLock::Result::Taken);
    const int notify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    QVERIFY(inotify_add_watch(notify, QFile::encodeName(lock.Path()).constData(), IN_OPEN) >= 0);
    Start();
    bool hasOpened = false;
    const auto hasComeToTheLock = [&] {
        char event[512];
        hasOpened = hasOpened || read(notify, event, sizeof event) > 0;
        return hasOpened;
    };
    QTRY_VERIFY_WITH_TIMEOUT(hasComeToTheLock(), 60000);
    close(notify);

    QVERIFY(!kxtest::Exists(application));
    Program(application, "new");
    kxtest::Remove(application + QStringLiteral(".old"));
    lock.Release();
    Finish();
    QCOMPARE(out, QByteArray("new"));
}

void TestExampleLauncher::RemainsThatCannotBeClearedKeepNobodyFromStarting()
{
    Program(application, "whole");
    const QString lock = guard::ApplicationLockPath(application);
    kxtest::TreeBuilder(directory->path())
        .File(QStringLiteral(".app.kxjournal"), "of an install")
        .Dir(lock.mid(directory->path().size() + 1));
    Start();
    Finish();
    QCOMPARE(out, QByteArray("whole"));
    QVERIFY2(err.contains(QFile::encodeName(lock)), err.constData());
}

void TestExampleLauncher::BadCommandLinesAreRefused()
{
    for (const QStringList& arguments :
         {QStringList(), QStringList{application},
          QStringList{QStringLiteral("relative"), QStringLiteral("bin/program")}}) {
        process->start(QStringLiteral(LAUNCHER), arguments);
        Finish();
        QCOMPARE(process->exitCode(), 2);
        QVERIFY2(err.startsWith("Usage: "), err.constData());
    }
}

QTEST_GUILESS_MAIN(TestExampleLauncher)
#include "tst_example_launcher.moc"
