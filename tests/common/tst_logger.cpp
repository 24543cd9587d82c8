#include "logcapture.h"
#include "vtableindex.h"
#include "wiringguard.h"

#include <kxcommon/logger.h>
#include <kxcommon/qtlogger.h>

#include <QLoggingCategory>
#include <QMutex>
#include <QTest>
#include <QThread>

#include <atomic>
#include <limits>
#include <memory>
#include <stdexcept>
#include <type_traits>
#include <vector>

KX_LOG_CATEGORY("test.logger")

using common::logger::FunctionName;
using common::logger::ILogger;
using common::logger::IMessage;
using common::logger::Message;

namespace sample {

class Subject
{
public:
    Subject() { KX_LOG(Info) << "constructed"; }
    ~Subject() { KX_LOG(Info) << "destroyed"; }
    virtual const QString& Reference(const QString& text) const
    {
        KX_LOG(Info) << "reference";
        return text;
    }
    static QList<int> List(const std::vector<std::pair<int, int>>&)
    {
        KX_LOG(Info) << "list";
        return {};
    }
};

void Free()
{
    KX_LOG(Info) << "free";
}

} // namespace sample

namespace {

// The rules of the user's environment are read when the application starts, and must not count.
[[maybe_unused]] const bool rulesRemoved =
    qunsetenv("QT_LOGGING_RULES") && qunsetenv("QT_LOGGING_CONF");

int Throwing()
{
    throw std::runtime_error("no value");
}

struct QtRecord
{
    QtMsgType type;
    QString category;
    QString text;
    QString file;
    QString function;
    int line;
};

QMutex qtMutex;
QList<QtRecord> qtRecords; // guarded by qtMutex

void CollectQtMessage(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    const QMutexLocker lock(&qtMutex);
    qtRecords << QtRecord{type,
                          QString::fromUtf8(context.category),
                          text,
                          QString::fromUtf8(context.file),
                          QString::fromUtf8(context.function),
                          context.line};
}

// Collects Qt's messages while it lives; the rules of the logging categories are its own.
class QtMessages
{
public:
    explicit QtMessages(const QString& rules) : previous(qInstallMessageHandler(CollectQtMessage))
    {
        QLoggingCategory::setFilterRules(rules);
        qtRecords.clear();
    }
    ~QtMessages()
    {
        qInstallMessageHandler(previous);
        QLoggingCategory::setFilterRules({});
    }

private:
    QtMessageHandler previous;
};

// Remembers what only exists while the message lives.
class AddressLogger : public ILogger
{
public:
    void Log(const IMessage& message) override { categories << message.Category(); }

    QList<const char*> categories;
};

} // namespace

/** The logger, messages, the logging macro and the bridge to Qt's logging. */
class TestLogger : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { kxtest::FailOnWiringWarnings(); }
    void cleanup() { common::logger::SetLogger(nullptr); }

    void NoLoggerIsInstalledAtStart();
    void SetLoggerInstallsAndNullRemoves();
    void LevelsBelowEightAreDelivered_data();
    void LevelsBelowEightAreDelivered();
    void MessageWithoutLoggerIsDropped();
    void MessageWithoutInsertionHasEmptyText();
    void PartsAreJoinedWithoutSeparator();
    void EveryKindOfPartIsWritten();
    void EveryInsertionIsInTheTextAtOnce();
    void MessageIsDeliveredByItsDestructorAlone();
    void MessageCarriesItsOrigin();
    void PartialTextIsDeliveredWhenAnInsertionThrows();
    void TypesKeepTheirShape();
    void VirtualOperationsKeepTheirOrder();
    void SeverityNumbersAreThoseOfSyslog();
    void MacroNamesFileFunctionAndLine();
    void MacroQualifiesFunctionNames();
    void MacroTakesTheLoggerAfreshForEachMessage();
    void MacroIsSafeInIfAndElseWithoutBraces();
    void CategoryIsTheAddressOfTheUnitsConstant();
    void LoggerNameIsMain();
    void FunctionNameIsCutOutOfTheSignature_data();
    void FunctionNameIsCutOutOfTheSignature();
    void ManyThreadsLogWhileTheLoggerChanges();
    void QtLoggerMapsLevelsToQtTypes_data();
    void QtLoggerMapsLevelsToQtTypes();
    void QtLoggerPassesTextUnchanged();
    void QtLoggerObeysTheRulesOfTheCategory();
    void QtLoggerAcceptsThreads();
};

void TestLogger::NoLoggerIsInstalledAtStart()
{
    QCOMPARE(common::logger::GetLogger(), nullptr);
}

void TestLogger::SetLoggerInstallsAndNullRemoves()
{
    AddressLogger logger;
    common::logger::SetLogger(&logger);
    QCOMPARE(common::logger::GetLogger(), &logger);
    common::logger::SetLogger(nullptr);
    QCOMPARE(common::logger::GetLogger(), nullptr);
}

void TestLogger::LevelsBelowEightAreDelivered_data()
{
    QTest::addColumn<int>("level");
    QTest::addColumn<bool>("delivered");

    QTest::newRow("smallest") << std::numeric_limits<int>::min() << true;
    QTest::newRow("negative") << -1 << true;
    for (int level = 0; level < 8; ++level)
        QTest::addRow("%d", level) << level << true;
    QTest::newRow("8") << 8 << false;
    QTest::newRow("9") << 9 << false;
    QTest::newRow("largest") << std::numeric_limits<int>::max() << false;
}

void TestLogger::LevelsBelowEightAreDelivered()
{
    QFETCH(int, level);
    QFETCH(bool, delivered);
    kxtest::LogCapture log;
    Message(&log, "c", level, "f", "n", 1) << "text";
    QCOMPARE(log.Records().size(), delivered ? 1 : 0);
    if (delivered)
        QCOMPARE(log.Last().level, level);
}

void TestLogger::MessageWithoutLoggerIsDropped()
{
    kxtest::LogCapture log;
    Message(nullptr, "c", 2, "f", "n", 1) << "text";
    common::logger::SetLogger(nullptr);
    KX_LOG(Critical) << "text";
    QVERIFY(log.Records().isEmpty());
}

void TestLogger::MessageWithoutInsertionHasEmptyText()
{
    kxtest::LogCapture log;
    KX_LOG(Info);
    QCOMPARE(log.Lines(), QStringList{"test.logger 6 "});
}

void TestLogger::PartsAreJoinedWithoutSeparator()
{
    kxtest::LogCapture log;
    KX_LOG(Info) << "a"
                 << "b";
    QCOMPARE(log.Last().text, QString("ab"));
}

void TestLogger::EveryKindOfPartIsWritten()
{
    kxtest::LogCapture log;
    const QString text = QString::fromUtf8("größe 文件 🎉");
    const void* pointer = reinterpret_cast<const void*>(quintptr(0xbeef));
    KX_LOG(Info) << text << "|"
                 << "größe|" << std::numeric_limits<int>::min() << "|"
                 << std::numeric_limits<unsigned int>::max() << "|"
                 << std::numeric_limits<qint64>::min() << "|" << std::numeric_limits<quint64>::max()
                 << "|" << pointer;
    QCOMPARE(log.Last().text,
             QString::fromUtf8("größe 文件 🎉|größe|-2147483648|4294967295|"
                               "-9223372036854775808|18446744073709551615|0xbeef"));
}

void TestLogger::EveryInsertionIsInTheTextAtOnce()
{
    Message message(nullptr, "c", 6, "f", "n", 1);
    QCOMPARE(message.Text(), QString());
    QCOMPARE(&(message << "a"), &message);
    QCOMPARE(message.Text(), QString("a"));
    message << 1;
    QCOMPARE(message.Text(), QString("a1"));
}

void TestLogger::MessageIsDeliveredByItsDestructorAlone()
{
    kxtest::LogCapture log;
    {
        Message message(&log, "c", 6, "f", "n", 1);
        message << "text";
        QVERIFY(log.Records().isEmpty());
    }
    QCOMPARE(log.Lines(), QStringList{"c 6 text"});
}

void TestLogger::MessageCarriesItsOrigin()
{
    kxtest::LogCapture log;
    Message(&log, "some.category", 5, "/src/file.cpp", "space::Class::Function", 4711) << "text";
    const kxtest::LogRecord record = log.Last();
    QCOMPARE(record.category, QString("some.category"));
    QCOMPARE(record.level, 5);
    QCOMPARE(record.file, QString("/src/file.cpp"));
    QCOMPARE(record.function, QString("space::Class::Function"));
    QCOMPARE(record.line, 4711);
    QCOMPARE(record.text, QString("text"));
}

void TestLogger::PartialTextIsDeliveredWhenAnInsertionThrows()
{
    kxtest::LogCapture log;
    QVERIFY_THROWS_EXCEPTION(std::runtime_error, KX_LOG(Info)
                                                     << "before " << Throwing() << " after");
    QCOMPARE(log.Lines(), QStringList{"test.logger 6 before "});
}

void TestLogger::TypesKeepTheirShape()
{
    static_assert(std::is_abstract_v<IMessage>);
    static_assert(!std::has_virtual_destructor_v<IMessage>);
    static_assert(std::is_abstract_v<ILogger>);
    static_assert(std::has_virtual_destructor_v<ILogger>);
    static_assert(std::is_base_of_v<IMessage, Message>);
    static_assert(std::is_base_of_v<QTextStream, Message::Stream>);
    static_assert(!std::is_copy_constructible_v<Message> && !std::is_move_constructible_v<Message>);
    static_assert(!std::is_copy_assignable_v<Message> && !std::is_move_assignable_v<Message>);
    static_assert(std::is_nothrow_destructible_v<Message>);
    static_assert(std::is_constructible_v<Message, ILogger*, const char*, int, const char*,
                                          const char*, int>);
    static_assert(std::is_same_v<decltype(common::logger::GetLogger()), ILogger*>);
    static_assert(std::is_same_v<decltype(std::declval<IMessage>().Text()), const QString&>);
    const Message::Stream stream;
    QCOMPARE(stream.string()->size(), 0);
}

void TestLogger::VirtualOperationsKeepTheirOrder()
{
    using kxtest::VtableIndex;
    QCOMPARE(VtableIndex(&IMessage::Level), 0);
    QCOMPARE(VtableIndex(&IMessage::Category), 1);
    QCOMPARE(VtableIndex(&IMessage::Text), 2);
    QCOMPARE(VtableIndex(&IMessage::Line), 3);
    QCOMPARE(VtableIndex(&IMessage::File), 4);
    QCOMPARE(VtableIndex(&IMessage::Function), 5);
    QCOMPARE(VtableIndex(&ILogger::Log), 0);
}

void TestLogger::SeverityNumbersAreThoseOfSyslog()
{
    QCOMPARE(int(common::logger::Critical), 2);
    QCOMPARE(int(common::logger::Error), 3);
    QCOMPARE(int(common::logger::Warning), 4);
    QCOMPARE(int(common::logger::Info), 6);
    QCOMPARE(int(common::logger::Debug), 7);
}

void TestLogger::MacroNamesFileFunctionAndLine()
{
    kxtest::LogCapture log;
    const int line = __LINE__ + 1;
    KX_LOG(Debug) << "text";
    QCOMPARE(log.Last().file, QString(__FILE__));
    QCOMPARE(log.Last().line, line);
    QCOMPARE(log.Last().function, QString("TestLogger::MacroNamesFileFunctionAndLine"));
    QCOMPARE(log.Last().level, 7);
    QCOMPARE(log.Last().category, QString("test.logger"));
}

void TestLogger::MacroQualifiesFunctionNames()
{
    kxtest::LogCapture log;
    {
        sample::Subject subject;
        subject.Reference("x");
        subject.List({});
    }
    sample::Free();
    QStringList functions;
    for (const kxtest::LogRecord& record : log.Records())
        functions << record.function;
    QCOMPARE(functions,
             (QStringList{"sample::Subject::Subject", "sample::Subject::Reference",
                          "sample::Subject::List", "sample::Subject::~Subject", "sample::Free"}));
}

void TestLogger::MacroTakesTheLoggerAfreshForEachMessage()
{
    kxtest::LogCapture first;
    KX_LOG(Info) << "one";
    {
        kxtest::LogCapture second;
        KX_LOG(Info) << "two";
        QCOMPARE(second.Lines(), QStringList{"test.logger 6 two"});
    }
    KX_LOG(Info) << "three";
    QCOMPARE(first.Lines(), (QStringList{"test.logger 6 one", "test.logger 6 three"}));
}

void TestLogger::MacroIsSafeInIfAndElseWithoutBraces()
{
    kxtest::LogCapture log;
    for (int i = 0; i < 4; ++i) {
        if (i % 2 == 0)
            KX_LOG(Info) << "even " << i;
        else
            KX_LOG(Info) << "odd " << i;
    }
    QStringList texts;
    for (const kxtest::LogRecord& record : log.Records())
        texts << record.text;
    QCOMPARE(texts, (QStringList{"even 0", "odd 1", "even 2", "odd 3"}));
}

void TestLogger::CategoryIsTheAddressOfTheUnitsConstant()
{
    AddressLogger logger;
    common::logger::SetLogger(&logger);
    KX_LOG(Info) << "one";
    sample::Free();
    QCOMPARE(logger.categories, (QList<const char*>{kxLogCategory, kxLogCategory}));
}

void TestLogger::LoggerNameIsMain()
{
    QCOMPARE(QString(kxLoggerName), QString("main"));
}

void TestLogger::FunctionNameIsCutOutOfTheSignature_data()
{
    QTest::addColumn<QString>("cut");
    QTest::addColumn<QString>("expected");

#define ROW(signature, expected)                                                                   \
    QTest::newRow(signature) << QString(FunctionName(signature).Text()) << QString(expected)
    ROW("virtual void updater::Downloader::Abort()", "updater::Downloader::Abort");
    ROW("updater::Updater::Updater(QNetworkAccessManager*, QObject*)", "updater::Updater::Updater");
    ROW("virtual updater::Updater::~Updater()", "updater::Updater::~Updater");
    ROW("updater::Updater::~Updater()", "updater::Updater::~Updater");
    ROW("bool updater::GetBuild(const QDomElement&, updater::FileList&)", "updater::GetBuild");
    ROW("const QString& A::B() const", "A::B");
    ROW("QList<updater::File> updater::Difference(const QList<updater::File>&)",
        "updater::Difference");
    ROW("std::map<int, std::pair<long int, char> > a::b::C(int (*)(int))", "a::b::C");
    ROW("common::http::IHttpRequest* common::http::CreateHttpRequest(QObject*)",
        "common::http::CreateHttpRequest");
    ROW("T f(T) [with T = int]", "f");
    ROW("void updater::(anonymous namespace)::Helper(int)",
        "updater::(anonymous namespace)::Helper");
    ROW("int main()", "main");
#undef ROW
}

void TestLogger::FunctionNameIsCutOutOfTheSignature()
{
    QFETCH(QString, cut);
    QFETCH(QString, expected);
    QCOMPARE(cut, expected);
}

void TestLogger::ManyThreadsLogWhileTheLoggerChanges()
{
    constexpr int threadCount = 4;
    constexpr int perThread = 2000;
    kxtest::LogCapture first;
    kxtest::LogCapture second;
    std::atomic<int> running{threadCount};
    std::vector<std::unique_ptr<QThread>> threads;
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back(QThread::create([&running] {
            for (int n = 0; n < perThread; ++n)
                KX_LOG(Debug) << "line " << n;
            --running;
        }));
        threads.back()->start();
    }
    while (running > 0) {
        common::logger::SetLogger(&first);
        common::logger::SetLogger(&second);
    }
    for (const auto& thread : threads)
        QVERIFY(thread->wait());
    QCOMPARE(first.Records().size() + second.Records().size(), threadCount * perThread);
}

void TestLogger::QtLoggerMapsLevelsToQtTypes_data()
{
    QTest::addColumn<int>("level");
    QTest::addColumn<int>("type");

    for (int level = 0; level <= 3; ++level)
        QTest::addRow("%d", level) << level << int(QtCriticalMsg);
    QTest::newRow("4") << 4 << int(QtWarningMsg);
    QTest::newRow("5") << 5 << int(QtWarningMsg);
    QTest::newRow("6") << 6 << int(QtInfoMsg);
    QTest::newRow("7") << 7 << int(QtDebugMsg);
}

void TestLogger::QtLoggerMapsLevelsToQtTypes()
{
    QFETCH(int, level);
    QFETCH(int, type);
    QtMessages messages("test.*=true");
    common::logger::QtLogger logger;
    Message(&logger, "test.qt", level, "/src/file.cpp", "space::Function", 42) << "text";
    QCOMPARE(qtRecords.size(), 1);
    QCOMPARE(int(qtRecords.first().type), type);
    QCOMPARE(qtRecords.first().category, QString("test.qt"));
    QCOMPARE(qtRecords.first().text, QString("text"));
    QCOMPARE(qtRecords.first().file, QString("/src/file.cpp"));
    QCOMPARE(qtRecords.first().function, QString("space::Function"));
    QCOMPARE(qtRecords.first().line, 42);
}

void TestLogger::QtLoggerPassesTextUnchanged()
{
    QtMessages messages("test.*=true");
    common::logger::QtLogger logger;
    const QString text = QString::fromUtf8("100%s '%1' \"quoted\" \\ größe ");
    Message(&logger, "test.qt", 6, "f", "n", 1) << text;
    QCOMPARE(qtRecords.size(), 1);
    QCOMPARE(qtRecords.first().text, text);
}

void TestLogger::QtLoggerObeysTheRulesOfTheCategory()
{
    QtMessages messages("*=true\ntest.quiet.debug=false\ntest.quiet.info=false");
    common::logger::QtLogger logger;
    for (const int level : {3, 4, 6, 7}) {
        Message(&logger, "test.quiet", level, "f", "n", 1) << "quiet " << level;
        Message(&logger, "test.loud", level, "f", "n", 1) << "loud " << level;
    }
    QStringList texts;
    for (const QtRecord& record : qtRecords)
        texts << record.text;
    QCOMPARE(texts, (QStringList{"quiet 3", "loud 3", "quiet 4", "loud 4", "loud 6", "loud 7"}));

    // A rule that changes later counts from the next message on.
    QLoggingCategory::setFilterRules("test.quiet=true");
    Message(&logger, "test.quiet", 7, "f", "n", 1) << "now";
    QCOMPARE(qtRecords.last().text, QString("now"));
}

void TestLogger::QtLoggerAcceptsThreads()
{
    QtMessages messages("test.*=true");
    common::logger::QtLogger logger;
    common::logger::SetLogger(&logger);
    std::vector<std::unique_ptr<QThread>> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back(QThread::create([] {
            for (int n = 0; n < 250; ++n)
                KX_LOG(Info) << "line";
        }));
        threads.back()->start();
    }
    for (const auto& thread : threads)
        QVERIFY(thread->wait());
    QCOMPARE(qtRecords.size(), 1000);
}

QTEST_GUILESS_MAIN(TestLogger)
#include "tst_logger.moc"
