#include "minisignkeys.h"
#include "publishrun.h"
#include "treebuilder.h"

#include <QDirIterator>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTest>
#include <QXmlStreamReader>

#include <csignal>

using kxtest::AddArguments;
using kxtest::PromoteArguments;
using kxtest::PublishResult;
using kxtest::Snapshot;
using kxtest::TreeBuilder;
using kxtest::With;

namespace {

QString S(const char* text)
{
    return QString::fromUtf8(text);
}

/** What clients of the server would be given wrongly; empty when every build is whole. */
QStringList Damage(const QString& server)
{
    QStringList damage;
    QDirIterator manifests(server + S("/packages"), {S("index.xml")}, QDir::Files,
                           QDirIterator::Subdirectories);
    while (manifests.hasNext()) {
        const QString index = manifests.next();
        QStringList expected;
        QXmlStreamReader xml(kxtest::Read(index));
        while (!xml.atEnd()) {
            if (xml.readNext() != QXmlStreamReader::StartElement || xml.name() != S("file"))
                continue;
            const QXmlStreamAttributes attributes = xml.attributes();
            if (attributes.value(S("symlink")).isEmpty())
                expected << S("%1 file 644 %2 %3")
                                .arg(attributes.value(S("name")), attributes.value(S("size")),
                                     attributes.value(S("md5")));
        }
        if (xml.hasError() || expected.isEmpty())
            damage << index;
        expected.sort();
        QStringList files =
            Snapshot(QFileInfo(index).path() + S("/files")).filter(QRegularExpression(S(" file ")));
        files.sort();
        if (files != expected)
            damage << index + S(" has other files");
    }
    return damage;
}

} // namespace

/** kill -9 at each call that changes the disk, as good as a power cut for all but the disk's cache.
 */
class TestKxpublishKills : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void KilledAddShowsTheVersionBeforeAndNextRunFinishes_data();
    void KilledAddShowsTheVersionBeforeAndNextRunFinishes();
    void KilledPromoteShowsOneVersionOrTheOther();
    void CopyOfAYoungFileIsCompared();

private:
    PublishResult RunWith(const QStringList& arguments,
                          const QList<QPair<QString, QString>>& variables) const;
    int CallsOf(const QStringList& arguments) const;
    QByteArray Offered() const { return kxtest::Read(server + S("/packages/version.xml")); }

    std::unique_ptr<TreeBuilder> tree;
    std::unique_ptr<TreeBuilder> workshop;
    QString server;
    QStringList arguments;
};

// What a kill leaves behind is the same in memory, and a hundred runs wait for no disk.
void TestKxpublishKills::initTestCase()
{
    if (QFileInfo(S("/dev/shm")).isWritable())
        qputenv("TMPDIR", "/dev/shm");
}

void TestKxpublishKills::init()
{
    QTest::failOnWarning(
        QRegularExpression(S("no such (signal|slot)"), QRegularExpression::CaseInsensitiveOption));
    tree = std::make_unique<TreeBuilder>();
    tree->File(S("app"), "program", 0755).RandomFile(S("lib/big"), 700000, 1);
    for (int i = 0; i < 20; ++i)
        tree->RandomFile(S("data/%1/%2").arg(i % 4).arg(i), 100 + i, quint32(i));
    tree->Symlink(S("lib/link"), S("big"));
    workshop = std::make_unique<TreeBuilder>();
    workshop->File(S("notes"), "What is new.\n");
    server = workshop->Path(S("srv"));
    arguments = AddArguments(tree->Root(), server) << S("--notes") << workshop->Path(S("notes"));
    QCOMPARE(kxtest::RunPublish(With(arguments, S("--version"), S("1"))).status, 0);
    QCOMPARE(kxtest::RunPublish(PromoteArguments(S("1"), server)).status, 0);
    // The next version has links to the one before and files of its own.
    tree->File(S("app"), "the next program", 0755).RandomFile(S("data/0/0"), 5000, 99);
}

PublishResult TestKxpublishKills::RunWith(const QStringList& words,
                                          const QList<QPair<QString, QString>>& variables) const
{
    QProcess process;
    kxtest::PreparePublish(process, words);
    QProcessEnvironment environment = process.processEnvironment();
    environment.insert(S("LD_PRELOAD"), S(KX_KILL_AT_LIBRARY));
    for (const auto& [name, value] : variables)
        environment.insert(name, value);
    process.setProcessEnvironment(environment);
    process.start();
    process.waitForFinished(120000);
    return kxtest::ResultOf(process, process.readAllStandardError());
}

int TestKxpublishKills::CallsOf(const QStringList& words) const
{
    const QString count = workshop->Path(S("count"));
    kxtest::Remove(count);
    const PublishResult result = RunWith(words, {{S("KX_CALL_COUNT"), count}});
    return result.status == 0 ? int(kxtest::Read(count).size()) : 0;
}

void TestKxpublishKills::KilledAddShowsTheVersionBeforeAndNextRunFinishes_data()
{
    QTest::addColumn<quint32>("seed");
    QTest::addColumn<bool>("manyFiles");
    QTest::addColumn<bool>("isSigned");
    QTest::newRow("few files, each brought to the disk") << 1u << false << false;
    QTest::newRow("many files, the volume brought to the disk") << 2u << true << false;
    QTest::newRow("signed") << 3u << false << true;
}

void TestKxpublishKills::KilledAddShowsTheVersionBeforeAndNextRunFinishes()
{
    QFETCH(quint32, seed);
    QFETCH(bool, manyFiles);
    QFETCH(bool, isSigned);
    if (isSigned) {
        workshop->File(S("key"), kxtest::SecretKeyParts(1).Text(), 0600);
        arguments << S("--sign") << workshop->Path(S("key"));
    }
    for (int i = 0; manyFiles && i < 300; ++i)
        tree->RandomFile(S("many/%1").arg(i), 10 + i, quint32(i));
    const int calls = CallsOf(With(arguments, S("--version"), S("0")));
    QVERIFY2(calls > 50, "the preloaded library counts too few calls");
    const QByteArray offered = Offered();
    QVERIFY(offered.contains(">1<"));

    QRandomGenerator random(seed);
    int published = 0;
    for (int round = 0; round < 32; ++round) {
        const QStringList words = With(arguments, S("--version"), S("2.%1").arg(round));
        // The last calls are those that matter most.
        const int at = round % 4 == 0 ? calls - round / 4 : random.bounded(1, calls + 1);
        QList<QPair<QString, QString>> variables = {{S("KX_KILL_AT"), QString::number(at)}};
        if (round % 2)
            variables.append({S("KX_KILL_AFTER"), S("1")});
        const PublishResult killed = RunWith(words, variables);
        // Threads take turns, so a run may have a call more or less.
        QVERIFY2(killed.status == -SIGKILL || at > calls - 15, qPrintable(S("call %1").arg(at)));
        QCOMPARE(Offered(), offered);
        QCOMPARE(Damage(server), QStringList());

        const bool isThere =
            kxtest::Exists(server + S("/packages/demo-app-v2.%1/windows/x64").arg(round));
        const PublishResult again = kxtest::RunPublish(words);
        QCOMPARE(again.status, isThere ? 1 : 0);
        QVERIFY(!isThere ||
                again.err.at(0).contains(S("published already, and never overwritten")));
        published += isThere;
        QCOMPARE(Damage(server), QStringList());
        // A run that is refused tidies nothing up, for it writes nothing.
        if (isThere)
            QCOMPARE(kxtest::RunPublish(PromoteArguments(S("1"), server)).status, 0);
        QVERIFY(!kxtest::Exists(server + S("/packages/.kxpublish")));
        QVERIFY(!kxtest::Exists(server + S("/packages/.kxpublish.lock")));
        kxtest::Remove(server + S("/packages/demo-app-v2.%1").arg(round));
    }
    QVERIFY2(published > 0 && published < 16, "the kills miss the moment of placing");
}

void TestKxpublishKills::KilledPromoteShowsOneVersionOrTheOther()
{
    QCOMPARE(kxtest::RunPublish(arguments).status, 0);
    const QByteArray before = Offered();
    const int calls = CallsOf(PromoteArguments(S("2.4.1"), server));
    QVERIFY(calls > 4);
    const QByteArray after = Offered();
    QVERIFY(after != before);
    QSet<QByteArray> seen;
    for (int at = 1; at <= calls; ++at) {
        QCOMPARE(kxtest::RunPublish(PromoteArguments(S("1"), server)).status, 0);
        RunWith(PromoteArguments(S("2.4.1"), server), {{S("KX_KILL_AT"), QString::number(at)}});
        seen.insert(Offered());
        QVERIFY(Offered() == before || Offered() == after);
        QCOMPARE(kxtest::RunPublish(PromoteArguments(S("2.4.1"), server)).status, 0);
        QCOMPARE(Offered(), after);
    }
    QCOMPARE(seen.size(), 2);
}

// A file that was written a moment ago could be written again without a trace in its times.
void TestKxpublishKills::CopyOfAYoungFileIsCompared()
{
    tree->File(S("data/young"), "a text of its own");
    const QStringList before = Snapshot(server);
    const PublishResult result = RunWith(arguments, {{S("KX_SPOIL"), S("text of its own")}});
    QCOMPARE(result.err, QStringList({S("'data/young': changed while it was published: it was "
                                        "written to or replaced"),
                                      S("refused, 1 problem")}));
    QCOMPARE(result.status, 1);
    QCOMPARE(Snapshot(server), before);
}

QTEST_GUILESS_MAIN(TestKxpublishKills)
#include "tst_kxpublish_kills.moc"
