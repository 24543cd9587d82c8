#include "logcapture.h"
#include "signaltrace.h"
#include "treebuilder.h"
#include "vtableindex.h"
#include "wiringguard.h"

#include "appcallback.h"

#include <QMutex>
#include <QSemaphore>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include <atomic>
#include <limits>
#include <memory>
#include <type_traits>

using updater::AppCallback;

namespace {

constexpr int waitMs = 30000;

class Callback : public AppCallbackFunction
{
public:
    int Call(const QString& downloadPath, const QString& localPackagePath) override
    {
        calls << downloadPath + " -> " + localPackagePath;
        thread = QThread::currentThread();
        entered.release();
        if (blocks)
            mayReturn.acquire();
        for (int i = 0; i < rounds; ++i)
            kxtest::MD5Of(kxtest::RandomBytes(10'000, i));
        returned = true;
        return code;
    }

    int code = 0;
    bool blocks = false;
    int rounds = 0; // of work after it was released
    QStringList calls;
    QThread* thread = nullptr;
    QSemaphore entered;
    QSemaphore mayReturn;
    std::atomic<bool> returned{false};
};

class EmptyCallback : public AppCallbackFunction
{
public:
    int Call(const QString&, const QString&) override { return 0; }
};

} // namespace

/** The thread of the host's callback. */
class TestAppCallback : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { kxtest::FailOnWiringWarnings(); }

    void WithoutCallbackTheResultIsZero();
    void ResultIsThatOfTheCallback_data();
    void ResultIsThatOfTheCallback();
    void CallbackRunsInTheThreadWithBothPaths();
    void ResultIsEmittedInTheThreadAndArrivesQueued();
    void EventLoopRunsWhileTheCallbackWorks();
    void DeletionWaitsForTheCallback();
    void DeletionBeforeTheStartDoesNotWait();
    void PathsAreEmptyUntilSet();
    void CallbackIsNeverDeleted();
    void PublishedOrderIsKept();
};

void TestAppCallback::WithoutCallbackTheResultIsZero()
{
    kxtest::LogCapture log;
    AppCallback thread(nullptr);
    kxtest::SignalTrace trace(&thread);
    thread.start(QThread::InheritPriority);
    QVERIFY(thread.wait());
    QCOMPARE(trace.Only({"result"}), QStringList{"result(0)"});
    QCOMPARE(log.Lines(), QStringList{"updater.callback 7 Callback is not set!"});
    QCOMPARE(log.Last().function, QString("updater::AppCallback::run"));
    QVERIFY(log.Last().thread != QThread::currentThreadId());
}

void TestAppCallback::ResultIsThatOfTheCallback_data()
{
    QTest::addColumn<int>("code");

    for (const int code : {0, 5, -1, std::numeric_limits<int>::min(), 600407})
        QTest::addRow("%d", code) << code;
}

void TestAppCallback::ResultIsThatOfTheCallback()
{
    QFETCH(int, code);
    kxtest::LogCapture log;
    Callback callback;
    callback.code = code;
    AppCallback thread(nullptr);
    thread.callback = &callback;
    kxtest::SignalTrace trace(&thread);
    thread.start(QThread::InheritPriority);
    QVERIFY(thread.wait());
    QCOMPARE(trace.Only({"result"}), QStringList{QStringLiteral("result(%1)").arg(code)});
    QCOMPARE(log.Lines(),
             (QStringList{"updater.callback 7 Calling application callback...",
                          QStringLiteral("updater.callback 7 application callback finished with "
                                         "code '%1'.")
                              .arg(code)}));
}

void TestAppCallback::CallbackRunsInTheThreadWithBothPaths()
{
    Callback callback;
    AppCallback thread(nullptr);
    thread.callback = &callback;
    thread.SetDownloadPath("/download");
    thread.SetLocalPackagePath("/local");
    QCOMPARE(thread.DownloadPath(), QString("/download"));
    QCOMPARE(thread.LocalPackagePath(), QString("/local"));
    thread.start(QThread::InheritPriority);
    QVERIFY(thread.wait());
    QCOMPARE(callback.calls, QStringList{"/download -> /local"});
    QCOMPARE(callback.thread, &thread);
}

void TestAppCallback::ResultIsEmittedInTheThreadAndArrivesQueued()
{
    AppCallback thread(nullptr);
    std::atomic<QThread*> emitting{nullptr};
    connect(
        &thread, &AppCallback::result, &thread, [&] { emitting = QThread::currentThread(); },
        Qt::DirectConnection);
    QSignalSpy finished(&thread, SIGNAL(finished()));
    QThread* arriving = nullptr;
    connect(&thread, &AppCallback::result, this, [&] { arriving = QThread::currentThread(); });
    thread.start(QThread::InheritPriority);
    QVERIFY(thread.wait());
    QCOMPARE(emitting.load(), &thread);
    QCOMPARE(arriving, nullptr);
    QTRY_COMPARE_WITH_TIMEOUT(arriving, QThread::currentThread(), waitMs);
}

void TestAppCallback::EventLoopRunsWhileTheCallbackWorks()
{
    Callback callback;
    callback.blocks = true;
    AppCallback thread(nullptr);
    thread.callback = &callback;
    thread.start(QThread::InheritPriority);
    callback.entered.acquire();
    QTimer timer;
    QSignalSpy ticks(&timer, SIGNAL(timeout()));
    timer.start(0);
    QTRY_VERIFY_WITH_TIMEOUT(ticks.size() > 10, waitMs);
    QVERIFY(!callback.returned);
    callback.mayReturn.release();
    QVERIFY(thread.wait());
}

void TestAppCallback::DeletionWaitsForTheCallback()
{
    // Lets the callback go on only when the thread object is already being destroyed.
    class Released : public AppCallback
    {
    public:
        explicit Released(Callback* blocked) : AppCallback(nullptr), blocked(blocked)
        {
            callback = blocked;
        }
        ~Released() override { blocked->mayReturn.release(); }
        Callback* blocked;
    };
    Callback blocked;
    blocked.blocks = true;
    blocked.rounds = 200;
    auto thread = std::make_unique<Released>(&blocked);
    kxtest::SignalTrace trace(thread.get());
    thread->start(QThread::InheritPriority);
    blocked.entered.acquire();
    QVERIFY(!blocked.returned);
    thread.reset();
    QVERIFY(blocked.returned);
    QCOMPARE(trace.Only({"result"}), QStringList{"result(0)"});
}

void TestAppCallback::DeletionBeforeTheStartDoesNotWait()
{
    kxtest::LogCapture log;
    Callback callback;
    {
        AppCallback thread(nullptr);
        thread.callback = &callback;
    }
    QCOMPARE(callback.calls, QStringList{});
    QCOMPARE(log.Lines(), QStringList{});
}

void TestAppCallback::PathsAreEmptyUntilSet()
{
    QObject parent;
    auto* thread = new AppCallback(&parent);
    QCOMPARE(thread->parent(), &parent);
    QCOMPARE(thread->callback, nullptr);
    QCOMPARE(thread->DownloadPath(), QString());
    QCOMPARE(thread->LocalPackagePath(), QString());
}

void TestAppCallback::CallbackIsNeverDeleted()
{
    class Counting : public EmptyCallback
    {
    public:
        explicit Counting(int* deletions) : deletions(deletions) {}
        ~Counting() override { ++*deletions; }
        int* deletions;
    };
    int deletions = 0;
    {
        Counting callback(&deletions);
        {
            AppCallback thread(nullptr);
            thread.callback = &callback;
            thread.start(QThread::InheritPriority);
        }
        QCOMPARE(deletions, 0);
    }
    QCOMPARE(deletions, 1);
}

void TestAppCallback::PublishedOrderIsKept()
{
    using kxtest::VtableIndex;
    static_assert(std::is_same_v<AppCallbackFunction, updater::AppCallbackFunction>);
    static_assert(std::has_virtual_destructor_v<AppCallbackFunction>);
    QCOMPARE(VtableIndex(&AppCallbackFunction::Call), 0);

    const int first = kxtest::firstAfterQObject;
    QCOMPARE(VtableIndex(&AppCallback::run), first);
    QCOMPARE(VtableIndex(&AppCallback::SetDownloadPath), first + 1);
    QCOMPARE(VtableIndex(&AppCallback::DownloadPath), first + 2);
    QCOMPARE(VtableIndex(&AppCallback::SetLocalPackagePath), first + 3);
    QCOMPARE(VtableIndex(&AppCallback::LocalPackagePath), first + 4);

    const QMetaObject& meta = AppCallback::staticMetaObject;
    QCOMPARE(QString(meta.className()), QString("updater::AppCallback"));
    QCOMPARE(meta.methodCount() - meta.methodOffset(), 1);
    QCOMPARE(meta.method(meta.methodOffset()).methodSignature(), QByteArray("result(int)"));
}

QTEST_GUILESS_MAIN(TestAppCallback)
#include "tst_appcallback.moc"
