#include "allocationfailure.h"
#include "fakeservices.h"
#include "logcapture.h"
#include "manifest.h"
#include "privateaccess.h"
#include "quietperiod.h"
#include "signaltrace.h"
#include "vtableindex.h"
#include "wiringguard.h"

#include "updater.h"

#include <kxupdater/iupdater.h>
#include <kxupdater/package.h>

#include <QMetaMethod>
#include <QNetworkAccessManager>
#include <QTest>

#include <limits>
#include <memory>
#include <type_traits>

using kxtest::FakeServices;
using updater::IUpdater;
using updater::Updater;

KX_PRIVATE_MEMBER(CheckTimer, updater::Updater, QTimer, checkTimer)
KX_PRIVATE_MEMBER(StateName, updater::Updater, QString, stateName)
KX_PRIVATE_MEMBER(CopyCount, updater::Updater, int, copyCount)
KX_PRIVATE_MEMBER(DownloadCount, updater::Updater, int, downloadCount)

namespace {

constexpr int waitMs = 30000;

const QStringList published{"waiting()",
                            "checking()",
                            "checkError()",
                            "available()",
                            "actual()",
                            "prepairing()",
                            "copying()",
                            "downloading()",
                            "creatingSymlinks()",
                            "verification()",
                            "installing()",
                            "canceled()",
                            "failed()",
                            "finished()",
                            "localUpdateVerificationFinished(bool)",
                            "updateAvailable()",
                            "updateRequered()",
                            "error(int,QString)",
                            "stateChanged(QString)",
                            "progress(int)"};

const QStringList commands{"Check()", "Wait()", "Download()", "Install()", "Cancel()", "Finish()"};

// Signatures of what `meta` adds to its base, in its order.
QStringList Methods(const QMetaObject& meta, QMetaMethod::MethodType type)
{
    QStringList signatures;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        if (meta.method(i).methodType() == type)
            signatures << meta.method(i).methodSignature();
    }
    return signatures;
}

struct Fixture
{
    Fixture()
    {
        // An empty path would be the current directory, whatever that holds.
        updater->SetLocalPackagePath("/nowhere");
        log.Clear();
    }

    // The state after the loop has begun to run.
    QStringList Settle()
    {
        if (!QTest::qWaitFor([this] { return trace.Contains("waiting()"); }, waitMs))
            return {"(never waited)"};
        return trace.Lines();
    }

    QNetworkAccessManager manager;
    kxtest::LogCapture log;
    std::unique_ptr<Updater> updater = std::make_unique<Updater>(&manager, nullptr);
    kxtest::SignalTrace trace{updater.get()};
};

class Callback : public AppCallbackFunction
{
public:
    int Call(const QString&, const QString&) override { return 0; }
};

} // namespace

/** The published face of the updater: names, orders, settings, commands, progress. */
class TestIUpdater : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        kxtest::FailOnWiringWarnings();
        FakeServices::Reset();
    }

    void SignalsKeepTheirOrder();
    void CommandsAreSlotsInTheirOrder();
    void MisspeltNamesAreTheOnlyOnes();
    void VirtualOperationsKeepTheirOrder();
    void UpdaterAddsItsSlotsAndSignalsInOrder();
    void UpdaterAddsItsVirtualOperationsInOrder();
    void InterfaceIsAbstractWithoutDataOfItsOwn();
    void FactoryMakesAnUpdaterOwnedByItsParent();
    void ConstructionAndDestructionAreLogged();
    void SettersStoreAndLog_data();
    void SettersStoreAndLog();
    void UrlIsReportedWithoutWhatWasAdded_data();
    void UrlIsReportedWithoutWhatWasAdded();
    void PackageSettingsReachThePackage();
    void CallbackIsStoredAndLoggedInHexadecimal();
    void CheckIntervalSetsTheTimer_data();
    void CheckIntervalSetsTheTimer();
    void ExecutablePathJoinsPathAndName_data();
    void ExecutablePathJoinsPathAndName();
    void BackupPathStandsBesideTheApplication_data();
    void BackupPathStandsBesideTheApplication();
    void WithoutPackageOperationsSaySo();
    void WithoutManagerChecksFail();
    void MachineStartsInWaitingOnceTheLoopRuns();
    void CommandsBeforeTheLoopRunsAreLost();
    void CommandsAreLoggedAndRaised_data();
    void CommandsAreLoggedAndRaised();
    void CommandsCanBeInvokedByName();
    void TimerRunsInWaitingAlone();
    void ProgressIsWeighedByState_data();
    void ProgressIsWeighedByState();
    void MessagesBeginWithTheState();
};

void TestIUpdater::SignalsKeepTheirOrder()
{
    QCOMPARE(Methods(IUpdater::staticMetaObject, QMetaMethod::Signal), published);
    QCOMPARE(QString(IUpdater::staticMetaObject.className()), QString("updater::IUpdater"));
    QCOMPARE(IUpdater::staticMetaObject.superClass(), &QObject::staticMetaObject);
}

void TestIUpdater::CommandsAreSlotsInTheirOrder()
{
    const QMetaObject& meta = IUpdater::staticMetaObject;
    QCOMPARE(Methods(meta, QMetaMethod::Slot), commands);
    QCOMPARE(Methods(meta, QMetaMethod::Method), QStringList{});
    for (const QString& command : commands) {
        const QMetaMethod method = meta.method(meta.indexOfSlot(command.toLatin1()));
        QCOMPARE(method.access(), QMetaMethod::Public);
        QCOMPARE(method.returnMetaType(), QMetaType::fromType<void>());
    }
}

void TestIUpdater::MisspeltNamesAreTheOnlyOnes()
{
    const QMetaObject& meta = IUpdater::staticMetaObject;
    QVERIFY(meta.indexOfSignal("prepairing()") >= 0);
    QVERIFY(meta.indexOfSignal("updateRequered()") >= 0);
    QCOMPARE(meta.indexOfSignal("preparing()"), -1);
    QCOMPARE(meta.indexOfSignal("updateRequired()"), -1);
    Fixture fixture;
    QObject host;
    QVERIFY(connect(fixture.updater.get(), SIGNAL(prepairing()), &host, SLOT(deleteLater())));
    QVERIFY(connect(fixture.updater.get(), SIGNAL(updateRequered()), &host, SLOT(deleteLater())));
}

void TestIUpdater::VirtualOperationsKeepTheirOrder()
{
    using kxtest::VtableIndex;
    int index = kxtest::firstAfterQObject;
    QCOMPARE(VtableIndex(&IUpdater::SetURL), index++);
    QCOMPARE(VtableIndex(&IUpdater::URL), index++);
    QCOMPARE(VtableIndex(&IUpdater::SetDownloadPath), index++);
    QCOMPARE(VtableIndex(&IUpdater::DownloadPath), index++);
    QCOMPARE(VtableIndex(&IUpdater::SetCurrentVersion), index++);
    QCOMPARE(VtableIndex(&IUpdater::CurrentVersion), index++);
    QCOMPARE(VtableIndex(&IUpdater::ServerVersion), index++);
    QCOMPARE(VtableIndex(&IUpdater::IsActual), index++);
    QCOMPARE(VtableIndex(&IUpdater::SetCheckInterval), index++);
    QCOMPARE(VtableIndex(&IUpdater::CheckInterval), index++);
    QCOMPARE(VtableIndex(&IUpdater::SetPackageName), index++);
    QCOMPARE(VtableIndex(&IUpdater::PackageName), index++);
    QCOMPARE(VtableIndex(&IUpdater::SetLocalPackagePath), index++);
    QCOMPARE(VtableIndex(&IUpdater::LocalPackagePath), index++);
    QCOMPARE(VtableIndex(&IUpdater::SetAppCallback), index++);
    QCOMPARE(VtableIndex(&IUpdater::AppCallback), index++);
    QCOMPARE(VtableIndex(&IUpdater::ExecutablePath), index++);
    QCOMPARE(VtableIndex(&IUpdater::VerifyLocalUpdate), index++);
    QCOMPARE(VtableIndex(&IUpdater::PackageXML), index++);
    QCOMPARE(VtableIndex(&IUpdater::Check), index++);
    QCOMPARE(VtableIndex(&IUpdater::Wait), index++);
    QCOMPARE(VtableIndex(&IUpdater::Download), index++);
    QCOMPARE(VtableIndex(&IUpdater::Install), index++);
    QCOMPARE(VtableIndex(&IUpdater::Cancel), index++);
    QCOMPARE(VtableIndex(&IUpdater::Finish), index++);
    QCOMPARE(index, kxtest::firstAfterQObject + 25);
}

void TestIUpdater::UpdaterAddsItsSlotsAndSignalsInOrder()
{
    const QMetaObject& meta = Updater::staticMetaObject;
    QCOMPARE(QString(meta.className()), QString("updater::Updater"));
    QCOMPARE(Methods(meta, QMetaMethod::Signal),
             (QStringList{
                 "check()", "wait()", "download()", "install()", "cancel()", "finish()",
                 "packageReady()", "packageChanged()", "packageActual()", "copyingComplete()",
                 "downloadingComplete()", "creatingSymlinksComplete()", "verificationComplete()",
                 "appcallbackComplete()", "backupingComplete()", "backupRemovingComplete()",
                 "movingComplete()", "revertingComplete()", "backupClearingComplete()"}));
    QCOMPARE(Methods(meta, QMetaMethod::Slot),
             commands + QStringList({"OnProgress(int,int)",
                                     "OnInvalidateActual()",
                                     "OnStateEnter()",
                                     "OnStateExit()",
                                     "OnQueryingStateEnter()",
                                     "OnScanningStateEnter()",
                                     "OnScanningFinished()",
                                     "OnScanningStateExit()",
                                     "OnAvailableStateEnter()",
                                     "OnPreparingStateEnter()",
                                     "OnCopyingStateEnter()",
                                     "OnCopyingStateExit()",
                                     "OnDownloadingStateEnter()",
                                     "OnDownloadingStateExit()",
                                     "OnCreatingSymlinksStateEnter()",
                                     "OnCreatingSymlinksStateExit()",
                                     "OnVerificationStateEnter()",
                                     "OnVerificationStateExit()",
                                     "OnVerificationScanFinished()",
                                     "OnAppCallbackStateEnter()",
                                     "OnAppCallbackResult(int)",
                                     "OnAppCallbackStateExit()",
                                     "OnBackupRemovingStateEnter()",
                                     "OnBackupRemovingStateExit()",
                                     "OnBackupingStateEnter()",
                                     "OnBackupingStateExit()",
                                     "OnMovingStateEnter()",
                                     "OnMovingStateExit()",
                                     "OnBackupClearingStateEnter()",
                                     "OnBackupClearingStateExit()",
                                     "OnRevertingStateEnter()",
                                     "OnRevertingStateExit()",
                                     "OnRestoringStateEnter()",
                                     "OnRestoringStateExit()",
                                     "OnVerifyLocalUpdateScanFinished()",
                                     "OnVerifyLocalUpdateScanFailed(int,QString)"}));
}

void TestIUpdater::UpdaterAddsItsVirtualOperationsInOrder()
{
    using kxtest::VtableIndex;
    int index = kxtest::firstAfterQObject + 25;
    QCOMPARE(VtableIndex(&Updater::BackupPath), index++);
    QCOMPARE(VtableIndex(&Updater::OnProgress), index++);
    QCOMPARE(VtableIndex(&Updater::OnInvalidateActual), index++);
    QCOMPARE(VtableIndex(&Updater::OnStateEnter), index++);
    QCOMPARE(VtableIndex(&Updater::OnStateExit), index++);
    QCOMPARE(VtableIndex(&Updater::OnQueryingStateEnter), index++);
    QCOMPARE(VtableIndex(&Updater::OnScanningStateEnter), index++);
    QCOMPARE(VtableIndex(&Updater::OnScanningFinished), index++);
    QCOMPARE(VtableIndex(&Updater::OnScanningStateExit), index++);
    QCOMPARE(VtableIndex(&Updater::OnAvailableStateEnter), index++);
    QCOMPARE(VtableIndex(&Updater::OnPreparingStateEnter), index++);
    QCOMPARE(VtableIndex(&Updater::OnCopyingStateEnter), index++);
    QCOMPARE(VtableIndex(&Updater::OnCopyingStateExit), index++);
    QCOMPARE(VtableIndex(&Updater::OnDownloadingStateEnter), index++);
    QCOMPARE(VtableIndex(&Updater::OnDownloadingStateExit), index++);
    QCOMPARE(VtableIndex(&Updater::OnCreatingSymlinksStateEnter), index++);
    QCOMPARE(VtableIndex(&Updater::OnCreatingSymlinksStateExit), index++);
    QCOMPARE(VtableIndex(&Updater::OnVerificationStateEnter), index++);
    QCOMPARE(VtableIndex(&Updater::OnVerificationStateExit), index++);
    QCOMPARE(VtableIndex(&Updater::OnVerificationScanFinished), index++);
    QCOMPARE(VtableIndex(&Updater::OnAppCallbackStateEnter), index++);
    QCOMPARE(VtableIndex(&Updater::OnAppCallbackResult), index++);
    QCOMPARE(VtableIndex(&Updater::OnAppCallbackStateExit), index++);
    QCOMPARE(VtableIndex(&Updater::OnBackupRemovingStateEnter), index++);
    QCOMPARE(VtableIndex(&Updater::OnBackupRemovingStateExit), index++);
    QCOMPARE(VtableIndex(&Updater::OnBackupingStateEnter), index++);
    QCOMPARE(VtableIndex(&Updater::OnBackupingStateExit), index++);
    QCOMPARE(VtableIndex(&Updater::OnMovingStateEnter), index++);
    QCOMPARE(VtableIndex(&Updater::OnMovingStateExit), index++);
    QCOMPARE(VtableIndex(&Updater::OnBackupClearingStateEnter), index++);
    QCOMPARE(VtableIndex(&Updater::OnBackupClearingStateExit), index++);
    QCOMPARE(VtableIndex(&Updater::OnRevertingStateEnter), index++);
    QCOMPARE(VtableIndex(&Updater::OnRevertingStateExit), index++);
    QCOMPARE(VtableIndex(&Updater::OnRestoringStateEnter), index++);
    QCOMPARE(VtableIndex(&Updater::OnRestoringStateExit), index++);
    QCOMPARE(VtableIndex(&Updater::OnVerifyLocalUpdateScanFinished), index++);
    QCOMPARE(VtableIndex(&Updater::OnVerifyLocalUpdateScanFailed), index++);
}

void TestIUpdater::InterfaceIsAbstractWithoutDataOfItsOwn()
{
    static_assert(std::is_abstract_v<IUpdater>);
    static_assert(std::has_virtual_destructor_v<IUpdater>);
    static_assert(std::is_base_of_v<QObject, IUpdater>);
    static_assert(sizeof(IUpdater) == sizeof(QObject));
    static_assert(std::is_same_v<::AppCallbackFunction, updater::AppCallbackFunction>);
}

void TestIUpdater::FactoryMakesAnUpdaterOwnedByItsParent()
{
    QNetworkAccessManager manager;
    auto parent = std::make_unique<QObject>();
    const QPointer<IUpdater> owned(updater::CreateUpdater(&manager, parent.get()));
    QVERIFY(owned);
    QCOMPARE(owned->parent(), parent.get());
    QVERIFY(qobject_cast<Updater*>(owned.data()));
    parent.reset();
    QVERIFY(!owned);
    QVERIFY(!manager.parent());

    const std::unique_ptr<IUpdater> free(updater::CreateUpdater(&manager, nullptr));
    QVERIFY(free);
    QVERIFY(!free->parent());
}

void TestIUpdater::ConstructionAndDestructionAreLogged()
{
    QNetworkAccessManager manager;
    kxtest::LogCapture log;
    auto object = std::make_unique<Updater>(&manager, nullptr);
    QCOMPARE(log.Lines("updater.core"),
             QStringList{"6 INITIALIZING: Setting check interval '2592000'."});
    log.Clear();
    object.reset();
    QCOMPARE(log.Lines(),
             (QStringList{"updater.core 7 INITIALIZING: destroyed!", "updater.package 7 destroyed.",
                          "updater.version 7 destroyed."}));
    QCOMPARE(log.Records().first().function, QString("updater::Updater::~Updater"));
}

void TestIUpdater::SettersStoreAndLog_data()
{
    QTest::addColumn<QString>("setter");
    QTest::addColumn<QString>("value");
    QTest::addColumn<QString>("line");

    QTest::newRow("url") << "url"
                         << "http://h"
                         << "Setting URL 'http://h'.";
    QTest::newRow("name") << "name"
                          << "demo-app"
                          << "Setting package name to 'demo-app'.";
    QTest::newRow("version") << "version"
                             << "1.0"
                             << "Setting current version '1.0'.";
    QTest::newRow("download path") << "download"
                                   << "/d"
                                   << "Setting download path '/d'.";
    QTest::newRow("local path") << "local"
                                << "/l"
                                << "Setting local package path to '/l'.";
    QTest::newRow("empty download path") << "download"
                                         << ""
                                         << "Setting download path ''.";
    QTest::newRow("not ASCII") << "local" << QString::fromUtf8("/größe")
                               << QString::fromUtf8("Setting local package path to '/größe'.");
}

void TestIUpdater::SettersStoreAndLog()
{
    QFETCH(QString, setter);
    QFETCH(QString, value);
    QFETCH(QString, line);
    Fixture fixture;
    IUpdater& object = *fixture.updater;
    QString stored;
    for (int i = 0; i < 2; ++i) { // each setter may be called again
        fixture.log.Clear();
        if (setter == "url") {
            object.SetURL(value);
            stored = object.URL();
        } else if (setter == "name") {
            object.SetPackageName(value);
            stored = object.PackageName();
        } else if (setter == "version") {
            object.SetCurrentVersion(value);
            stored = object.CurrentVersion();
        } else if (setter == "download") {
            object.SetDownloadPath(value);
            stored = object.DownloadPath();
        } else {
            object.SetLocalPackagePath(value);
            stored = object.LocalPackagePath();
        }
        QCOMPARE(fixture.log.Lines("updater.core"), QStringList{"6 INITIALIZING: " + line});
        QCOMPARE(stored, value);
    }
    QCOMPARE(fixture.trace.Lines(), QStringList{});
}

void TestIUpdater::UrlIsReportedWithoutWhatWasAdded_data()
{
    QTest::addColumn<QString>("set");
    QTest::addColumn<QString>("held");
    QTest::addColumn<QString>("reported");

    QTest::newRow("plain") << "https://h"
                           << "https://h/packages"
                           << "https://h";
    QTest::newRow("path") << "https://h/a/b"
                          << "https://h/a/b/packages"
                          << "https://h/a/b";
    QTest::newRow("slash at the end") << "https://h/"
                                      << "https://h//packages"
                                      << "https://h/";
    QTest::newRow("ends in packages") << "https://h/packages"
                                      << "https://h/packages/packages"
                                      << "https://h/packages";
    QTest::newRow("query") << "https://h/a?key=value"
                           << "https://h/a?key=value/packages"
                           << "https://h/a";
    QTest::newRow("empty") << ""
                           << "/packages"
                           << "";
}

void TestIUpdater::UrlIsReportedWithoutWhatWasAdded()
{
    QFETCH(QString, set);
    QFETCH(QString, held);
    QFETCH(QString, reported);
    Fixture fixture;
    fixture.updater->SetURL(set);
    QCOMPARE(FakeServices::requests.first()->Url().toString(), held);
    QCOMPARE(fixture.updater->URL(), reported);
}

void TestIUpdater::PackageSettingsReachThePackage()
{
    Fixture fixture;
    fixture.updater->SetURL("https://h");
    fixture.updater->SetPackageName("demo");
    fixture.updater->SetCurrentVersion("3.0");
    QCOMPARE(fixture.updater->ServerVersion(), QString());
    QCOMPARE(fixture.updater->PackageXML(), QString());
    // An installed version that is newer makes the version query ask twice.
    FakeServices::Answer("version.xml", {FakeServices::Body(kxtest::VersionReply("2.0")),
                                         FakeServices::Body(kxtest::VersionReply("2.0"))});
    FakeServices::Answer("index.xml",
                         {FakeServices::Body(kxtest::ManifestFor("demo", "http://d", "run", {}))});
    fixture.Settle();
    fixture.updater->Check();
    QTRY_VERIFY_WITH_TIMEOUT(fixture.trace.Contains("actual()"), waitMs);
    QCOMPARE(FakeServices::Calls("request2 Send").size(), 2);
    QVERIFY(FakeServices::Calls("request2 Send")
                .last()
                .startsWith("request2 Send https://h/packages/version.xml?id="));
    QCOMPARE(fixture.updater->ServerVersion(), QString("2.0"));
    QVERIFY(fixture.updater->IsActual());
    QVERIFY(fixture.updater->PackageXML().contains("name=\"demo\""));
    QVERIFY(fixture.updater->URL().endsWith("/index.xml"));
}

void TestIUpdater::CallbackIsStoredAndLoggedInHexadecimal()
{
    Fixture fixture;
    Callback callback;
    QVERIFY(!fixture.updater->AppCallback());
    fixture.updater->SetAppCallback(&callback);
    QCOMPARE(fixture.updater->AppCallback(), &callback);
    fixture.updater->SetAppCallback(nullptr);
    QVERIFY(!fixture.updater->AppCallback());
    QCOMPARE(fixture.log.Lines(),
             (QStringList{"updater.core 6 INITIALIZING: Setting application callback to '0x" +
                              QString::number(quintptr(&callback), 16) + "'.",
                          "updater.core 6 INITIALIZING: Setting application callback to '0x0'."}));
}

void TestIUpdater::CheckIntervalSetsTheTimer_data()
{
    QTest::addColumn<int>("seconds");
    QTest::addColumn<int>("milliseconds");

    QTest::newRow("one minute") << 60 << 60000;
    QTest::newRow("default of thirty days") << 2592000 << 2147483647;
    QTest::newRow("more than fits") << 3000000 << 2147483647;
    QTest::newRow("largest") << std::numeric_limits<int>::max() << 2147483647;
    QTest::newRow("last that fits") << 2147483 << 2147483000;
    QTest::newRow("first that does not") << 2147484 << 2147483647;
    QTest::newRow("zero") << 0 << 0;
}

void TestIUpdater::CheckIntervalSetsTheTimer()
{
    QFETCH(int, seconds);
    QFETCH(int, milliseconds);
    Fixture fixture;
    QCOMPARE(fixture.updater->CheckInterval(), 2592000);
    const QTimer& timer = kxtest::Access(kxtest::CheckTimer(), *fixture.updater);
    QCOMPARE(timer.interval(), 2147483647);
    QVERIFY(timer.isSingleShot());
    fixture.updater->SetCheckInterval(seconds);
    QCOMPARE(fixture.updater->CheckInterval(), seconds);
    QCOMPARE(timer.interval(), milliseconds);
    QVERIFY(timer.isSingleShot());
    QVERIFY(!timer.isActive());
    QCOMPARE(fixture.log.Lines(),
             QStringList{QStringLiteral("updater.core 6 INITIALIZING: Setting check interval '%1'.")
                             .arg(seconds)});
}

void TestIUpdater::ExecutablePathJoinsPathAndName_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("executable");
    QTest::addColumn<QString>("joined");

    QTest::newRow("plain") << "/d"
                           << "run"
                           << "/d/run";
    QTest::newRow("separator at the end") << "/d/"
                                          << "bin/run"
                                          << "/d/bin/run";
    QTest::newRow("not clean") << "/d//./x/.."
                               << "./bin//run"
                               << "/d/bin/run";
    QTest::newRow("no executable") << "/d"
                                   << ""
                                   << "/d";
    QTest::newRow("not ASCII") << QString::fromUtf8("/größe") << "a b"
                               << QString::fromUtf8("/größe/a b");
}

void TestIUpdater::ExecutablePathJoinsPathAndName()
{
    QFETCH(QString, path);
    QFETCH(QString, executable);
    QFETCH(QString, joined);
    FakeServices::Answer("version.xml", {FakeServices::Body(kxtest::VersionReply("2.0"))});
    FakeServices::Answer(
        "index.xml", {FakeServices::Body(kxtest::ManifestFor("demo", "http://d", executable, {}))});
    Fixture fixture;
    fixture.updater->SetURL("http://h");
    fixture.updater->SetPackageName("demo");
    fixture.updater->SetDownloadPath(path);
    fixture.Settle();
    fixture.updater->Check();
    QTRY_VERIFY_WITH_TIMEOUT(fixture.trace.Contains("actual()"), waitMs);
    QCOMPARE(fixture.updater->ExecutablePath(), joined);
}

void TestIUpdater::BackupPathStandsBesideTheApplication_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("backup");

    QTest::newRow("plain") << "/opt/app"
                           << "/opt/app.old";
    QTest::newRow("separator at the end") << "/opt/app/"
                                          << "/opt/app.old";
    QTest::newRow("separators at the end") << "/opt/app///"
                                           << "/opt/app.old";
    QTest::newRow("empty") << ""
                           << ".old";
    QTest::newRow("root") << "/"
                          << "/.old";
    QTest::newRow("dots") << "/opt/app-1.0"
                          << "/opt/app-1.0.old";
}

void TestIUpdater::BackupPathStandsBesideTheApplication()
{
    QFETCH(QString, path);
    QFETCH(QString, backup);
    Fixture fixture;
    fixture.updater->SetLocalPackagePath(path);
    QCOMPARE(fixture.updater->BackupPath(), backup);
    QCOMPARE(fixture.updater->LocalPackagePath(), path);
}

void TestIUpdater::WithoutPackageOperationsSaySo()
{
    QNetworkAccessManager manager;
    kxtest::LogCapture log;
    std::unique_ptr<Updater> object;
    {
        auto failure = kxtest::AllocationFailure::Of<updater::Package>();
        object = std::make_unique<Updater>(&manager, nullptr);
        QVERIFY(failure.Failures() > 0);
    }
    kxtest::SignalTrace trace(object.get());
    QCOMPARE(log.Lines(), (QStringList{"updater.core 2 INITIALIZING: Failed to create package!",
                                       "updater.core 6 INITIALIZING: Setting check interval "
                                       "'2592000'."}));
    log.Clear();
    object->SetURL("http://h");
    object->SetPackageName("demo");
    object->SetCurrentVersion("1.0");
    QCOMPARE(log.Lines(), (QStringList{"updater.core 2 INITIALIZING: Failed to set URL!",
                                       "updater.core 2 INITIALIZING: Failed to set package name!",
                                       "updater.core 6 INITIALIZING: Setting current version "
                                       "'1.0'."}));
    QCOMPARE(object->URL(), QString());
    QCOMPARE(object->PackageName(), QString());
    QCOMPARE(object->ServerVersion(), QString());
    QCOMPARE(object->PackageXML(), QString());
    object->SetDownloadPath("/d");
    QCOMPARE(object->ExecutablePath(), QString());
    QCOMPARE(object->CurrentVersion(), QString("1.0"));
    QCOMPARE(trace.Lines(), QStringList{});

    QTRY_VERIFY_WITH_TIMEOUT(trace.Contains("waiting()"), waitMs);
    trace.Clear();
    log.Clear();
    object->Check();
    QTRY_VERIFY_WITH_TIMEOUT(trace.Contains("failed()"), waitMs);
    QCOMPARE(trace.Lines(),
             (QStringList{"check()", "stateChanged(CHECKING)", "checking()",
                          "stateChanged(QUERYING)", "error(600400, Package is not created!)",
                          "stateChanged(FAILED)", "failed()"}));
    QVERIFY(log.Contains("updater.core 2 QUERYING: Package is not created!"));
}

void TestIUpdater::WithoutManagerChecksFail()
{
    const std::unique_ptr<IUpdater> object(updater::CreateUpdater(nullptr, nullptr));
    QVERIFY(object);
    object->SetURL("http://h");
    QCOMPARE(object->URL(), QString());
    object->SetPackageName("demo");
    QCOMPARE(object->PackageName(), QString("demo"));
    kxtest::SignalTrace trace(object.get());
    QTRY_VERIFY_WITH_TIMEOUT(trace.Contains("waiting()"), waitMs);
    trace.Clear();
    object->Check();
    QTRY_VERIFY_WITH_TIMEOUT(trace.Contains("failed()"), waitMs);
    QCOMPARE(trace.Lines(),
             (QStringList{"check()", "stateChanged(CHECKING)", "checking()",
                          "stateChanged(QUERYING)", "error(600100, Request is not created!)",
                          "stateChanged(FAILED)", "failed()"}));
}

void TestIUpdater::MachineStartsInWaitingOnceTheLoopRuns()
{
    Fixture fixture;
    QCOMPARE(fixture.trace.Lines(), QStringList{});
    QCOMPARE(fixture.Settle(), (QStringList{"stateChanged(WAITING)", "waiting()"}));
    kxtest::PassTimersOf(20);
    QCOMPARE(fixture.trace.Lines().size(), 2);
    QCOMPARE(fixture.log.Lines(), (QStringList{"updater.core 7 WAITING: entered state.",
                                               "updater.core 7 WAITING: Invalidating actual "
                                               "sign."}));
}

void TestIUpdater::CommandsBeforeTheLoopRunsAreLost()
{
    Fixture fixture;
    fixture.updater->Check();
    fixture.updater->Install();
    QCOMPARE(fixture.Settle(),
             (QStringList{"check()", "install()", "stateChanged(WAITING)", "waiting()"}));
    kxtest::PassTimersOf(20);
    QCOMPARE(fixture.trace.Lines().size(), 4);
}

void TestIUpdater::CommandsAreLoggedAndRaised_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QStringList>("signalNames");

    // What happens in WAITING; the other states are in the tests of the machine.
    QTest::newRow("Wait") << "Wait" << QStringList{"wait()"};
    QTest::newRow("Download") << "Download" << QStringList{"download()"};
    QTest::newRow("Finish") << "Finish" << QStringList{"finish()"};
    QTest::newRow("Cancel") << "Cancel"
                            << QStringList{"cancel()", "stateChanged(CANCELED)", "canceled()"};
    QTest::newRow("Check") << "Check"
                           << QStringList{"check()", "stateChanged(CHECKING)", "checking()",
                                          "stateChanged(QUERYING)"};
}

void TestIUpdater::CommandsAreLoggedAndRaised()
{
    QFETCH(QString, command);
    QFETCH(QStringList, signalNames);
    Fixture fixture;
    fixture.updater->SetURL("http://h");
    fixture.Settle();
    fixture.trace.Clear();
    fixture.log.Clear();
    QVERIFY(QMetaObject::invokeMethod(fixture.updater.get(), command.toLatin1().constData()));
    QTRY_COMPARE_WITH_TIMEOUT(fixture.trace.Lines(), signalNames, waitMs);
    kxtest::PassTimersOf(20);
    QCOMPARE(fixture.trace.Lines(), signalNames);
    QCOMPARE(fixture.log.Lines().value(0), "updater.core 7 WAITING: <<<--- " + command.toUpper());
}

void TestIUpdater::CommandsCanBeInvokedByName()
{
    Fixture fixture;
    fixture.Settle();
    for (const QString& command : commands)
        QVERIFY(fixture.updater->metaObject()->indexOfSlot(command.toLatin1()) >= 0);
    QObject sender;
    QVERIFY(connect(&sender, SIGNAL(destroyed()), fixture.updater.get(), SLOT(Check())));
}

void TestIUpdater::TimerRunsInWaitingAlone()
{
    Fixture fixture;
    const QTimer& timer = kxtest::Access(kxtest::CheckTimer(), *fixture.updater);
    fixture.updater->SetCheckInterval(3600);
    QVERIFY(!timer.isActive());
    fixture.Settle();
    QVERIFY(timer.isActive());
    fixture.updater->Cancel();
    QTRY_VERIFY_WITH_TIMEOUT(fixture.trace.Contains("canceled()"), waitMs);
    QVERIFY(!timer.isActive());
    fixture.updater->Wait();
    QTRY_COMPARE_WITH_TIMEOUT(fixture.trace.CountOf("waiting"), 2, waitMs);
    QVERIFY(timer.isActive());

    // At zero it fires at once, and the check comes by itself.
    fixture.updater->SetCheckInterval(0);
    fixture.updater->Cancel();
    fixture.updater->Wait();
    QTRY_VERIFY_WITH_TIMEOUT(fixture.trace.Contains("checking()"), waitMs);
    QCOMPARE(fixture.trace.CountOf("check"), 0);
}

void TestIUpdater::ProgressIsWeighedByState_data()
{
    QTest::addColumn<QString>("state");
    QTest::addColumn<int>("copies");
    QTest::addColumn<int>("downloads");
    QTest::addColumn<int>("current");
    QTest::addColumn<int>("total");
    QTest::addColumn<int>("done");
    QTest::addColumn<int>("overall");

    QTest::newRow("downloading, half of half") << "DOWNLOADING" << 2 << 2 << 5 << 10 << 50 << 75;
    QTest::newRow("copying, half of half") << "COPYING" << 2 << 2 << 5 << 10 << 50 << 25;
    QTest::newRow("copying alone") << "COPYING" << 3 << 0 << 10 << 10 << 100 << 100;
    QTest::newRow("downloading alone") << "DOWNLOADING" << 0 << 3 << 1 << 3 << 33 << 33;
    QTest::newRow("nothing to do") << "COPYING" << 0 << 0 << 1 << 1 << 100 << 0;
    QTest::newRow("total of zero counts as one") << "DOWNLOADING" << 0 << 1 << 0 << 0 << 0 << 0;
    QTest::newRow("total of zero, one done") << "DOWNLOADING" << 0 << 1 << 1 << 0 << 100 << 100;
    QTest::newRow("links are all behind") << "CREATINGSYMLINKS" << 2 << 2 << 1 << 2 << 50 << 100;
    QTest::newRow("verification has no weight") << "VERIFICATION" << 2 << 2 << 1 << 2 << 50 << 0;
    QTest::newRow("backup removal begins") << "BACKUPREMOVING" << 0 << 0 << 0 << 10 << 0 << 0;
    QTest::newRow("backup removal ends") << "BACKUPREMOVING" << 0 << 0 << 10 << 10 << 100 << 5;
    QTest::newRow("backup begins") << "BACKUPING" << 0 << 0 << 0 << 10 << 0 << 5;
    QTest::newRow("moving begins") << "MOVING" << 0 << 0 << 0 << 10 << 0 << 10;
    QTest::newRow("moving, half") << "MOVING" << 0 << 0 << 1 << 2 << 50 << 45;
    QTest::newRow("clearing, half") << "BACKUPCLEARING" << 0 << 0 << 1 << 2 << 50 << 90;
    QTest::newRow("reverting, half") << "REVERTING" << 0 << 0 << 1 << 2 << 50 << 85;
    QTest::newRow("restoring, half") << "RESTORING" << 0 << 0 << 1 << 2 << 50 << 95;
    QTest::newRow("truncated") << "DOWNLOADING" << 0 << 1 << 999 << 1000 << 99 << 99;
    QTest::newRow("large counts") << "COPYING" << 1 << 0 << 2147483646 << 2147483647 << 99 << 99;
    QTest::newRow("waiting") << "WAITING" << 1 << 1 << 1 << 2 << 50 << 0;
    QTest::newRow("unknown name") << "OTHER" << 1 << 1 << 1 << 2 << 50 << 0;
}

void TestIUpdater::ProgressIsWeighedByState()
{
    QFETCH(QString, state);
    QFETCH(int, copies);
    QFETCH(int, downloads);
    QFETCH(int, current);
    QFETCH(int, total);
    QFETCH(int, done);
    QFETCH(int, overall);
    Fixture fixture;
    kxtest::Access(kxtest::StateName(), *fixture.updater) = state;
    kxtest::Access(kxtest::CopyCount(), *fixture.updater) = copies;
    kxtest::Access(kxtest::DownloadCount(), *fixture.updater) = downloads;
    fixture.updater->OnProgress(current, total);
    QCOMPARE(fixture.trace.Lines(), QStringList{QStringLiteral("progress(%1)").arg(overall)});
    QCOMPARE(fixture.log.Lines(),
             QStringList{QStringLiteral("updater.core 7 %1:  done: %2%,  Total done: %3%...")
                             .arg(state, QString::number(done), QString::number(overall))});
}

void TestIUpdater::MessagesBeginWithTheState()
{
    Fixture fixture;
    fixture.Settle();
    fixture.log.Clear();
    fixture.updater->SetDownloadPath("/d");
    fixture.updater->Cancel();
    QTRY_VERIFY_WITH_TIMEOUT(fixture.trace.Contains("canceled()"), waitMs);
    QCOMPARE(fixture.log.Lines(),
             (QStringList{"updater.core 6 WAITING: Setting download path '/d'.",
                          "updater.core 7 WAITING: <<<--- CANCEL",
                          "updater.core 7 WAITING: exited state WAITING",
                          "updater.core 7 CANCELED: entered state."}));
    QStringList functions;
    for (const kxtest::LogRecord& record : fixture.log.Records())
        functions << record.function;
    QCOMPARE(functions,
             (QStringList{"updater::Updater::SetDownloadPath", "updater::Updater::Cancel",
                          "updater::Updater::OnStateExit", "updater::Updater::OnStateEnter"}));
}

QTEST_GUILESS_MAIN(TestIUpdater)
#include "tst_iupdater.moc"
