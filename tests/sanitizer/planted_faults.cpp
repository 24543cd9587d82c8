// Commits the fault that its argument names, for tst_planted_faults.

#include <QCoreApplication>
#include <QObject>
#include <QThread>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>

namespace {

int counter;

class Counter : public QThread
{
    void run() override
    {
        for (int i = 0; i < 100000; ++i)
            ++counter;
    }
};

void Race()
{
    Counter first;
    Counter second;
    first.start();
    second.start();
    first.wait();
    second.wait();
}

// Strings and functors go to and fro between two threads: ordered by Qt, hence no fault.
void QueuedCalls()
{
    QThread thread;
    QObject there;
    QObject here;
    there.moveToThread(&thread);
    thread.start();
    int left = 1000;
    QStringList received;
    std::function<void(const QString&)> send = [&](const QString& text) {
        QMetaObject::invokeMethod(
            &there,
            [&, text] {
                const QString reply = text + QLatin1Char('x');
                QMetaObject::invokeMethod(
                    &here,
                    [&, reply] {
                        received.append(reply);
                        if (--left > 0)
                            send(QString::number(left));
                        else
                            QCoreApplication::quit();
                    },
                    Qt::QueuedConnection);
            },
            Qt::QueuedConnection);
    };
    send(QStringLiteral("first"));
    QCoreApplication::exec();
    thread.quit();
    thread.wait();
}

void Leak()
{
    char* volatile lost = new char[33];
    lost[0] = 1;
    lost = nullptr;
}

void UseAfterFree()
{
    int* volatile freed = new int(1);
    delete freed;
    counter = *freed;
}

void Overflow(int start)
{
    counter = start + INT_MAX;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const char* fault = argc == 2 ? argv[1] : "";
    if (std::strcmp(fault, "race") == 0)
        Race();
    else if (std::strcmp(fault, "queued calls") == 0)
        QueuedCalls();
    else if (std::strcmp(fault, "leak") == 0)
        Leak();
    else if (std::strcmp(fault, "use after free") == 0)
        UseAfterFree();
    else if (std::strcmp(fault, "overflow") == 0)
        Overflow(argc);
    else
        return 2;
    return EXIT_SUCCESS;
}
