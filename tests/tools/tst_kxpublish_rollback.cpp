#include "publishsite.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTest>

#include <functional>
#include <sys/stat.h>
#include <unistd.h>

using kxtest::PublishResult;
using kxtest::PublishSite;
using kxtest::Snapshot;

namespace {

QString S(const char* text)
{
    return QString::fromUtf8(text);
}

quint64 Inode(const QString& path)
{
    struct stat status;
    return ::lstat(path.toUtf8().constData(), &status) == 0 ? quint64(status.st_ino) : 0;
}

} // namespace

/** Going back to what was offered before, and removing what no client needs any more. */
class TestKxpublishRollback : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { kxtest::KeepTreesInMemory(); }
    void PromoteKeepsAHistory();
    void PromotingAnEarlierVersionIsGoingBackToo();
    void TwoRollbacksGoBackTwoSteps();
    void NothingToGoBackToIsRefused();
    void VersionsThatAreGoneArePassedOver();
    void WithoutAHistoryThePublishedVersionsAreTaken_data();
    void WithoutAHistoryThePublishedVersionsAreTaken();
    void DamagedHistoryBeginsAnewWithPromote();
    void AsPublishesTheOlderBuildsAgain();
    void AsIsRefused_data();
    void AsIsRefused();
    void AsThatFailsHalfWayLeavesNothing();
    void AsThatFailsRemovesNothingOfAnEarlierRun();
    void AsNeverLeadsBackToTheBadVersion();
    void NamesThatLeadOutOfTheTreeAreNotFollowed();
    void AsFollowsNoLinkThatLeadsOutOfTheTree();

    void PruneKeepsTheLatestOfEachPlatform();
    void PruneKeepsWhatIsOfferedAndWhatARollbackNeeds();
    void PruneDoesNotCountBrokenBuilds();
    void PruneSetsFreeWhatNobodyShares();
    void PruneThatFailsTellsWhatIsDone();
    void PruneNeedsANumber();
    void PruneRefusesWhenItCannotTellWhatIsOffered();
    void PruneRemovesNothingThroughALink();
    void ForeignFilesKeepTheirDirectory();
};

void TestKxpublishRollback::PromoteKeepsAHistory()
{
    PublishSite site;
    site.Release(S("1"));
    QCOMPARE(site.History(), QStringList({S("(missing)")}));
    site.Release(S("2"));
    site.Release(S("10"));
    site.Promote(S("10"));
    QCOMPARE(site.History(), QStringList({S("1"), S("2")}));
}

void TestKxpublishRollback::PromotingAnEarlierVersionIsGoingBackToo()
{
    PublishSite site;
    for (const char* version : {"1", "2", "3"})
        site.Release(S(version));
    site.Promote(S("1"));
    QCOMPARE(site.History(), QStringList());
    site.Release(S("4"));
    QCOMPARE(site.History(), QStringList({S("1")}));
    QCOMPARE(site.Run(S("rollback")).status, 0);
    QCOMPARE(site.Offered(), S("1"));
}

void TestKxpublishRollback::TwoRollbacksGoBackTwoSteps()
{
    PublishSite site;
    for (const char* version : {"1", "2", "3"})
        site.Release(S(version));
    site.Add(S("2.5")); // never offered
    const PublishResult first = site.Run(S("rollback"));
    QCOMPARE(first.err, QStringList({S("clients are offered version 2 now, 3 before")}));
    QCOMPARE(first.out, QStringList({S("before: 3"), S("target: 2"), S("version: 2")}));
    QCOMPARE(first.status, 0);
    QCOMPARE(site.Offered(), S("2"));
    QCOMPARE(site.History(), QStringList({S("1")}));
    QCOMPARE(site.Run(S("rollback")).status, 0);
    QCOMPARE(site.Offered(), S("1"));
    QCOMPARE(site.History(), QStringList());
}

void TestKxpublishRollback::NothingToGoBackToIsRefused()
{
    PublishSite site;
    site.Add(S("1"));
    const PublishResult nothing = site.Run(S("rollback"));
    QCOMPARE(nothing.err.at(0), S("'%1/packages/version.xml': offers no version that clients could "
                                  "go back from")
                                    .arg(site.Server()));
    QCOMPARE(nothing.status, 1);
    site.Promote(S("1"));
    site.Release(S("2"));
    QCOMPARE(site.Run(S("rollback")).status, 0);
    const QStringList before = Snapshot(site.Server());
    const PublishResult again = site.Run(S("rollback"));
    QCOMPARE(again.err,
             QStringList({S("'%1/packages': nothing to go back to: no version was offered "
                            "before 1 that is still published")
                              .arg(site.Server()),
                          S("refused, 1 problem")}));
    QCOMPARE(again.out, QStringList());
    QCOMPARE(again.status, 1);
    QCOMPARE(Snapshot(site.Server()), before);
}

void TestKxpublishRollback::VersionsThatAreGoneArePassedOver()
{
    PublishSite site;
    for (const char* version : {"1", "2", "3", "4"})
        site.Release(S(version));
    kxtest::Remove(site.Server() + S("/packages/demo-app-v3"));
    kxtest::Write(site.BuildPath(S("2"), S("index.xml")), "<packages/>");
    const PublishResult result = site.Run(S("rollback"));
    QCOMPARE(result.err,
             QStringList({S("3 is passed over: 'demo-app': not published in version 3 for x64"),
                          S("2 is passed over: '%1': not a manifest with files of demo-app")
                              .arg(site.BuildPath(S("2"), S("index.xml"))),
                          S("clients are offered version 1 now, 4 before")}));
    QCOMPARE(site.Offered(), S("1"));
    QCOMPARE(site.History(), QStringList());
}

void TestKxpublishRollback::WithoutAHistoryThePublishedVersionsAreTaken_data()
{
    QTest::addColumn<QByteArray>("history");
    QTest::addColumn<QString>("warning");
    QTest::newRow("none") << QByteArray() << QString();
    QTest::newRow("not a version")
        << QByteArray("1\n../x\033\n") << S("line 2 is not a version: '../x\\x1b'");
    QTest::newRow("cut short") << QByteArray("1\n2") << S("is cut short");
    QTest::newRow("empty line") << QByteArray("1\n\n2\n") << S("line 2 is not a version: ''");
    QTest::newRow("rollback before the end")
        << QByteArray("rollback 1 1\n2\n") << S("line 1 is not a version: 'rollback 1 1'");
    QTest::newRow("too large") << QByteArray(1024 * 1024 + 1, '\n') << S("is too large");
    QTest::newRow("a directory") << QByteArray("(directory)")
                                 << S("cannot be read: not a regular file");
}

void TestKxpublishRollback::WithoutAHistoryThePublishedVersionsAreTaken()
{
    QFETCH(QByteArray, history);
    QFETCH(QString, warning);
    PublishSite site;
    for (const char* version : {"9", "10", "11", "12"})
        site.Add(S(version));
    site.Promote(S("11"));
    const QString path = site.Server() + S("/packages/.kxpublish.history");
    if (history == "(directory)")
        QVERIFY(QDir().mkdir(path));
    else if (!history.isEmpty())
        kxtest::Write(path, history);
    const PublishResult result = site.Run(S("rollback"), {S("--dry-run")});
    QCOMPARE(result.err, warning.isEmpty()
                             ? QStringList()
                             : QStringList({S("warning: '%1': %2; the published versions are used "
                                              "instead")
                                                .arg(path, warning)}));
    QCOMPARE(result.out.at(1), S("target: 10"));
    if (history == "(directory)")
        return;
    QCOMPARE(site.Run(S("rollback")).status, 0);
    QCOMPARE(site.Offered(), S("10"));
    QCOMPARE(site.History(), QStringList({S("9")}));
    QCOMPARE(site.Run(S("rollback")).status, 0);
    QCOMPARE(site.Offered(), S("9"));
}

void TestKxpublishRollback::DamagedHistoryBeginsAnewWithPromote()
{
    PublishSite site;
    site.Release(S("1"));
    site.Release(S("2"));
    const QString path = site.Server() + S("/packages/.kxpublish.history");
    kxtest::Write(path, "?\n");
    site.Add(S("3"));
    const PublishResult result =
        kxtest::RunPublish(kxtest::PromoteArguments(S("3"), site.Server()));
    QCOMPARE(result.err.at(0),
             S("warning: '%1': line 1 is not a version: '?'; the history begins anew").arg(path));
    QCOMPARE(result.status, 0);
    QCOMPARE(site.History(), QStringList({S("2")}));
}

void TestKxpublishRollback::AsPublishesTheOlderBuildsAgain()
{
    PublishSite site;
    site.Tree().RandomFile(S("lib/deep/data"), 5000, 1).Symlink(S("link"), S("lib/deep/data"));
    site.Add(S("1"));
    site.Add(S("1"), S("other"), S("x86"));
    kxtest::Write(site.BuildPath(S("1"), S("notes.md")), "notes\n");
    site.Promote(S("1"));
    site.Add(S("2"));
    site.Add(S("2"), S("other"), S("x86"));
    site.Promote(S("2"));
    const QStringList before = site.Visible();
    const PublishResult dry = site.Run(S("rollback"), {S("--as"), S("2.0.1"), S("--dry-run")});
    QCOMPARE(dry.status, 0);
    QCOMPARE(site.Visible(), before);
    const PublishResult result = site.Run(S("rollback"), {S("--as"), S("2.0.1")});
    QCOMPARE(result.err, QStringList({S("clients are offered version 2.0.1 now, 2 before")}));
    QCOMPARE(result.out,
             QStringList({S("before: 2"), S("target: 1"), S("version: 2.0.1"),
                          S("build: demo-app 2.0.1 for x64"), S("build: other 2.0.1 for x86")}));
    QCOMPARE(dry.out, result.out);
    QCOMPARE(result.status, 0);
    QCOMPARE(site.Offered(), S("2.0.1"));

    // Like the older one, but for the address in the manifest.
    const QString manifest =
        QString::fromUtf8(kxtest::Read(site.BuildPath(S("1"), S("index.xml"))));
    QVERIFY(manifest.contains(S("demo-app-v1/windows/x64/files")));
    QCOMPARE(QString::fromUtf8(kxtest::Read(site.BuildPath(S("2.0.1"), S("index.xml")))),
             QString(manifest).replace(S("-v1/"), S("-v2.0.1/")));
    QCOMPARE(Snapshot(site.BuildPath(S("2.0.1"), S("files"))),
             Snapshot(site.BuildPath(S("1"), S("files"))));
    QCOMPARE(kxtest::Read(site.BuildPath(S("2.0.1"), S("notes.md"))), QByteArray("notes\n"));
    QCOMPARE(Inode(site.BuildPath(S("2.0.1"), S("files/lib/deep/data"))),
             Inode(site.BuildPath(S("1"), S("files/lib/deep/data"))));
    QCOMPARE(site.Run(S("verify")).status, 0);
    QCOMPARE(Snapshot(site.Server()).filter(S("packages/.kxpublish")).size(), 1); // the history
}

void TestKxpublishRollback::AsIsRefused_data()
{
    QTest::addColumn<QString>("version");
    QTest::addColumn<QString>("problem");
    QTest::newRow("no version") << S("../3")
                                << S("--as '../3': may only have letters of ASCII, "
                                     "digits and ._+~-");
    QTest::newRow("the one on offer")
        << S("2") << S("--as '2': not later than 2, which clients are offered now");
    QTest::newRow("the same by number")
        << S("2.0") << S("--as '2.0': not later than 2, which clients are offered now");
    QTest::newRow("earlier") << S("1.5")
                             << S("--as '1.5': not later than 2, which clients are offered now");
    QTest::newRow("without numbers")
        << S("latest") << S("--as 'latest': not later than 2, which clients are offered now");
    QTest::newRow("taken by this package")
        << S("3") << S("'%1/packages/demo-app-v3/windows/x64': in the way, and never overwritten");
    QTest::newRow("taken by another package")
        << S("4") << S("'%1/packages/other-v4/windows/x64': in the way, and never overwritten");
    QTest::newRow("taken by what is no build")
        << S("5") << S("'%1/packages/demo-app-v5/windows/x64': in the way, and never overwritten");
    QTest::newRow("taken by a file")
        << S("6") << S("'%1/packages/demo-app-v6/windows/x64': in the way, and never overwritten");
}

void TestKxpublishRollback::AsIsRefused()
{
    QFETCH(QString, version);
    QFETCH(QString, problem);
    PublishSite site;
    site.Release(S("1"));
    site.Release(S("2"));
    site.Add(S("3"));
    kxtest::TreeBuilder server(site.Server());
    server.Dir(S("packages/demo-app-v5/windows/x64"))
        .File(S("packages/demo-app-v5/windows/x64/mine"), "x")
        .File(S("packages/demo-app-v6/windows/x64"), "x")
        .File(S("packages/other-v4/windows/x64/index.xml"), "x");
    // Another package would keep version 1 from being offered at all.
    if (version != S("4"))
        server.Remove(S("packages/other-v4"));
    else
        server.Remove(S("packages/other-v4/windows/x64/index.xml"))
            .File(S("packages/other-v4/windows/x64/mine"), "x");
    const QStringList before = Snapshot(site.Server());
    const PublishResult result = site.Run(S("rollback"), {S("--as"), version});
    QCOMPARE(result.err,
             QStringList({problem.contains(S("%1")) ? problem.arg(site.Server()) : problem,
                          S("refused, 1 problem")}));
    QCOMPARE(result.status, 1);
    QCOMPARE(Snapshot(site.Server()), before);
}

void TestKxpublishRollback::AsThatFailsHalfWayLeavesNothing()
{
    PublishSite site;
    for (const char* version : {"1", "2"}) {
        site.Add(S(version));
        site.Add(S(version), S("other"));
        site.Promote(S(version));
    }
    // The first package finds its place, the second one does not.
    kxtest::TreeBuilder(site.Server()).File(S("packages/other-v3/mine"), "x");
    kxtest::SetMode(site.Server() + S("/packages/other-v3"), 0555);
    const QStringList before = site.Visible();
    const PublishResult result = kxtest::RunPublish(
        {S("rollback"), site.Server(), S("--as"), S("3")}, kxtest::DropFileRights);
    QCOMPARE(result.err, QStringList({S("cannot make the directory "
                                        "'%1/packages/other-v3/windows': Permission denied")
                                          .arg(site.Server())}));
    QCOMPARE(result.status, 3);
    QCOMPARE(site.Visible(), before);
    QCOMPARE(site.Offered(), S("2"));
    kxtest::SetMode(site.Server() + S("/packages/other-v3"), 0755);
}

void TestKxpublishRollback::AsNeverLeadsBackToTheBadVersion()
{
    PublishSite site;
    for (const char* version : {"1", "2", "3"})
        site.Release(S(version));
    QCOMPARE(site.Run(S("rollback"), {S("--as"), S("4")}).status, 0);
    QCOMPARE(site.History(), QStringList({S("1")}));
    QCOMPARE(site.Run(S("rollback"), {S("--as"), S("5")}).status, 0);
    QCOMPARE(kxtest::Read(site.BuildPath(S("5"), S("files/app"))), QByteArray("1"));
    QCOMPARE(site.Run(S("rollback")).status, 1);

    // Without a history neither.
    PublishSite other;
    for (const char* version : {"1", "2", "3"})
        other.Add(S(version));
    other.Promote(S("3"));
    QCOMPARE(other.Run(S("rollback"), {S("--as"), S("4")}).status, 0);
    QCOMPARE(other.Run(S("rollback")).status, 0);
    QCOMPARE(other.Offered(), S("1"));
}

void TestKxpublishRollback::NamesThatLeadOutOfTheTreeAreNotFollowed()
{
    PublishSite site;
    site.Release(S("1"));
    site.Release(S("2"));
    const QString path = site.BuildPath(S("1"), S("index.xml"));
    kxtest::Write(path, kxtest::Read(path).replace("name=\"app\"", "name=\"../../../../app\""));
    kxtest::Write(site.Server() + S("/packages/app"), "1");
    const QStringList before = Snapshot(site.Server());
    const PublishResult result = site.Run(S("rollback"), {S("--as"), S("3")});
    QCOMPARE(result.status, 1);
    QVERIFY2(result.err.at(0).startsWith(S("'../../../../app': ")), qPrintable(result.err.at(0)));
    QCOMPARE(Snapshot(site.Server()), before);
}

void TestKxpublishRollback::PruneKeepsTheLatestOfEachPlatform()
{
    PublishSite site;
    for (const char* version : {"2", "9", "10"})
        site.Add(S(version));
    for (const char* version : {"1", "2"})
        site.Add(S(version), S("demo-app"), S("x86"));
    const QStringList before = site.Visible();
    const PublishResult dry = site.Run(S("prune"), {S("--keep"), S("1"), S("--dry-run")});
    QCOMPARE(site.Visible(), before);
    QCOMPARE(dry.out.mid(0, 3), QStringList({S("would remove: demo-app 2 for x64"),
                                             S("would remove: demo-app 9 for x64"),
                                             S("would remove: demo-app 1 for x86")}));
    const PublishResult result = site.Run(S("prune"), {S("--keep"), S("1")});
    QCOMPARE(result.err, QStringList());
    QCOMPARE(result.status, 0);
    QCOMPARE(result.out.mid(0, 3),
             QStringList({S("removed: demo-app 2 for x64"), S("removed: demo-app 9 for x64"),
                          S("removed: demo-app 1 for x86")}));
    QCOMPARE(QDir(site.Server() + S("/packages"))
                 .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             QStringList({S("demo-app-v10"), S("demo-app-v2")}));
    QVERIFY(!kxtest::Exists(site.BuildPath(S("2"))));
    QVERIFY(kxtest::Exists(site.BuildPath(S("2"), S("index.xml"), S("demo-app"), S("x86"))));
    QCOMPARE(site.Run(S("prune"), {S("--keep"), S("1")}).out, QStringList({S("bytes freed: 0")}));
}

void TestKxpublishRollback::PruneKeepsWhatIsOfferedAndWhatARollbackNeeds()
{
    PublishSite site;
    for (const char* version : {"1", "2", "3"})
        site.Release(S(version));
    for (const char* version : {"4", "5", "6"})
        site.Add(S(version));
    const PublishResult result = site.Run(S("prune"), {S("--keep"), S("2")});
    QCOMPARE(result.err,
             QStringList({S("demo-app 3 for x64 stays: clients are offered it"),
                          S("demo-app 2 for x64 stays: a rollback would offer it next")}));
    QCOMPARE(result.out.mid(0, 2),
             QStringList({S("removed: demo-app 1 for x64"), S("removed: demo-app 4 for x64")}));
    QCOMPARE(result.status, 0);
    QCOMPARE(site.Run(S("rollback")).status, 0);
    QCOMPARE(site.Offered(), S("2"));
    QCOMPARE(site.Run(S("verify")).status, 0);
}

void TestKxpublishRollback::PruneDoesNotCountBrokenBuilds()
{
    PublishSite site;
    for (const char* version : {"1", "2", "3", "4"})
        site.Add(S(version));
    kxtest::Remove(site.BuildPath(S("4"), S("files/app")));
    kxtest::Write(site.BuildPath(S("1"), S("index.xml")), "x");
    const PublishResult result = site.Run(S("prune"), {S("--keep"), S("2")});
    QCOMPARE(result.err,
             QStringList({S("demo-app 4 for x64 stays: broken, but later than those that go")}));
    QCOMPARE(result.out.at(0), S("removed: demo-app 1 for x64"));
    QVERIFY(result.out.at(1).startsWith(S("bytes freed: ")));
}

void TestKxpublishRollback::PruneSetsFreeWhatNobodyShares()
{
    PublishSite site;
    site.Tree().RandomFile(S("big"), 1000000, 1);
    site.Add(S("1"));
    site.Add(S("2"));
    site.Tree().Remove(S("big")).RandomFile(S("big"), 500000, 2);
    site.Add(S("3"));
    const auto freed = [](const PublishResult& result) {
        return result.out.constLast().section(S(": "), 1).toLongLong();
    };
    // Shared by the two that go: it counts, once. Each of the other files takes a block or so.
    const PublishResult dry = site.Run(S("prune"), {S("--keep"), S("1"), S("--dry-run")});
    QVERIFY2(freed(dry) >= 1000000 && freed(dry) < 1200000, qPrintable(dry.out.constLast()));
    // Shared with the one that stays: it does not.
    site.Tree().Remove(S("big")).RandomFile(S("big"), 1000000, 1);
    site.Add(S("4"));
    const PublishResult result = site.Run(S("prune"), {S("--keep"), S("1")});
    QVERIFY2(freed(result) >= 500000 && freed(result) < 700000, qPrintable(result.out.constLast()));
    QCOMPARE(result.out.size(), 4);
    QCOMPARE(site.Run(S("verify")).status, 0);
}

void TestKxpublishRollback::PruneThatFailsTellsWhatIsDone()
{
    PublishSite site;
    for (const char* version : {"1", "2", "3"})
        site.Add(S(version));
    kxtest::SetMode(QFileInfo(site.BuildPath(S("2"))).path(), 0555);
    const PublishResult result = kxtest::RunPublish(
        {S("prune"), site.Server(), S("--keep"), S("1")}, kxtest::DropFileRights);
    QCOMPARE(result.err,
             QStringList({S("cannot rename '%1' to '%2/packages/.kxpublish/removed-2': Permission "
                            "denied")
                              .arg(site.BuildPath(S("2")), site.Server())}));
    QCOMPARE(result.out.at(0), S("removed: demo-app 1 for x64"));
    QCOMPARE(result.out.size(), 2);
    QCOMPARE(result.status, 3);
    kxtest::SetMode(QFileInfo(site.BuildPath(S("2"))).path(), 0755);
    QCOMPARE(site.Run(S("verify")).status, 0);
}

void TestKxpublishRollback::PruneNeedsANumber()
{
    PublishSite site;
    site.Add(S("1"));
    for (const char* number : {"0", "-1", "many", ""}) {
        const PublishResult result = site.Run(S("prune"), {S("--keep"), S(number)});
        QVERIFY(result.status != 0);
        QCOMPARE(result.out, QStringList());
    }
    QVERIFY(kxtest::Exists(site.BuildPath(S("1"))));
}

void TestKxpublishRollback::ForeignFilesKeepTheirDirectory()
{
    PublishSite site;
    site.Add(S("1"));
    site.Add(S("2"));
    const QString mine = site.Server() + S("/packages/demo-app-v1/mine");
    kxtest::Write(mine, "x");
    QCOMPARE(site.Run(S("prune"), {S("--keep"), S("1")}).status, 0);
    QVERIFY(kxtest::Exists(mine));
    QVERIFY(!kxtest::Exists(site.Server() + S("/packages/demo-app-v1/windows")));
}

void TestKxpublishRollback::PruneRemovesNothingThroughALink()
{
    PublishSite site;
    for (const char* version : {"1", "2", "3"})
        site.Release(S(version));
    const QString packages = site.Server() + S("/packages/");
    // To the version on offer, and to one that would go.
    QVERIFY(QFile::link(S("demo-app-v3"), packages + S("demo-app-vlatest")));
    QVERIFY(QFile::link(S("demo-app-v1"), packages + S("demo-app-vfirst")));
    const QStringList before = site.Visible();
    const PublishResult result = site.Run(S("prune"), {S("--keep"), S("1")});
    QStringList said = result.err;
    said.sort();
    QCOMPARE(said, QStringList({S("demo-app 1 for x64 stays: a link leads to it"),
                                S("demo-app 2 for x64 stays: a rollback would offer it next"),
                                S("demo-app first for x64 stays: it lies behind a link"),
                                S("demo-app latest for x64 stays: it lies behind a link")}));
    QCOMPARE(result.status, 0);
    QCOMPARE(site.Visible(), before);
}

void TestKxpublishRollback::PruneRefusesWhenItCannotTellWhatIsOffered()
{
    PublishSite site;
    for (const char* version : {"1", "2", "3", "4"})
        site.Add(S(version));
    site.Promote(S("1"));
    const QString reply = site.Server() + S("/packages/version.xml");
    for (const char* text : {"", "<version> 1 </version>", "<v>1</v>"}) {
        kxtest::Write(reply, text);
        const QStringList before = site.Visible();
        const PublishResult result = site.Run(S("prune"), {S("--keep"), S("1")});
        QCOMPARE(result.err,
                 QStringList({S("'%1': does not tell which version clients are offered, so nothing "
                                "is removed; 'promote' writes it anew")
                                  .arg(reply)}));
        QCOMPARE(result.out, QStringList());
        QCOMPARE(result.status, 1);
        QCOMPARE(site.Visible(), before);
    }
    kxtest::Write(reply, "<version>1</version>");
    const auto unreadable = [reply] {
        kxtest::DropFileRights();
        ::chmod(reply.toUtf8().constData(), 0);
    };
    QCOMPARE(
        kxtest::RunPublish({S("prune"), site.Server(), S("--keep"), S("1")}, unreadable).status, 1);
    QVERIFY(QFileInfo::exists(site.BuildPath(S("1"))));
}

void TestKxpublishRollback::AsThatFailsRemovesNothingOfAnEarlierRun()
{
    PublishSite site;
    site.Add(S("1"));
    site.Add(S("3")); // the same tree: what a rollback as version 3 would place
    site.Promote(S("1"));
    site.Release(S("2"));
    const QString history = site.Server() + S("/packages/.kxpublish.history");
    QVERIFY(QFile::remove(history));
    QVERIFY(QDir().mkpath(history + S("/full")));
    const QStringList before = site.Visible();
    const PublishResult result = site.Run(S("rollback"), {S("--as"), S("3")});
    QCOMPARE(result.status, 3);
    // Nothing has been done that could be told.
    QCOMPARE(result.out, QStringList());
    QCOMPARE(site.Visible(), before);
}

void TestKxpublishRollback::AsFollowsNoLinkThatLeadsOutOfTheTree()
{
    PublishSite site;
    site.Tree().File(S("sub/file"), "12345");
    site.Release(S("1"));
    site.Release(S("2"));
    const kxtest::TreeBuilder elsewhere;
    const QString sub = site.BuildPath(S("1"), S("files/sub"));
    QVERIFY(QDir(sub).removeRecursively());
    kxtest::Write(elsewhere.Path(S("file")), "mine!");
    QVERIFY(QFile::link(elsewhere.Root(), sub));
    const QStringList before = site.Visible();
    const PublishResult result = site.Run(S("rollback"), {S("--as"), S("3")});
    QVERIFY(result.err.value(0).startsWith(S("'sub/file': ")));
    QCOMPARE(result.status, 1);
    QCOMPARE(site.Visible(), before);
}

QTEST_GUILESS_MAIN(TestKxpublishRollback)
#include "tst_kxpublish_rollback.moc"
