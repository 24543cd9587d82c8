// What --json prints: one object with the same frame, for each command and each outcome.

#include "minisignkeys.h"
#include "publishsite.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QTest>

using kxtest::PublishResult;
using kxtest::PublishSite;

namespace {

QString S(const char* text)
{
    return QString::fromUtf8(text);
}

/** Names of all members of `value`, and of what is in them. */
QSet<QString> MembersOf(const QJsonValue& value)
{
    QSet<QString> names;
    for (const QJsonValue& element : value.toArray())
        names += MembersOf(element);
    const QJsonObject object = value.toObject();
    for (auto member = object.constBegin(); member != object.constEnd(); ++member) {
        names.insert(member.key());
        names += MembersOf(member.value());
    }
    return names;
}

/** What the guide tells of the object that `command` prints. */
QString Documented(const QString& command)
{
    const QString guide = QString::fromUtf8(kxtest::Read(S(KX_SOURCE_DIR "/docs/publishing.md")));
    QString text;
    for (const QString& line : guide.split(u'\n')) {
        if (line.startsWith(S("| every one |")) || line.startsWith(S("| `%1` |").arg(command)))
            text += line;
    }
    return text;
}

} // namespace

class TestKxpublishJson : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { kxtest::KeepTreesInMemory(); }
    void EveryOutcomeIsOneObject_data();
    void EveryOutcomeIsOneObject();
};

// "SITE" stands for the server tree and "TREE" for the tree to publish.
void TestKxpublishJson::EveryOutcomeIsOneObject_data()
{
    QTest::addColumn<QStringList>("words");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("result");
    QTest::addColumn<QStringList>("members");
    const auto row = [](const char* name, const char* line, int status, const char* result,
                        const QStringList& members) {
        QTest::newRow(name) << S(line).split(u' ') << status << S(result) << members;
    };
    const char* add = "add --name n --version 9 --exec app --base-url http://u.example --out SITE "
                      "TREE";
    row("add", add, 0, "done",
        {"index", "files", "links", "bytes", "linked", "linkedBytes", "newBytes", "leftOut"});
    row("add, refused", "add --name n/ --version 9 --exec app --base-url x --out SITE TREE", 1,
        "refused", {});
    row("add, usage", "add TREE", 2, "usage", {});
    row("add, signed",
        "add --name n --version 9 --exec app --base-url http://u.example --out SITE "
        "--sign KEY TREE",
        0, "done", {"index", "keyId"});
    row("keygen", "keygen --no-passphrase --secret NEW --public NEW.pub", 0, "done",
        {"secret", "public", "keyId", "key"});
    row("keygen, refused", "keygen --no-passphrase --secret KEY --public NEW.pub", 1, "refused",
        {});
    row("sign", "sign TREE --key KEY --name n --version 9", 0, "done",
        {"sums", "signature", "files", "links", "bytes", "keyId"});
    row("sign, refused", "sign TREE --key TREE --name n --version 9", 1, "refused", {});
    row("promote", "promote --version 1 --out SITE", 0, "done", {"reply", "version"});
    row("promote, refused", "promote --version 7 --out SITE", 1, "refused", {});
    row("promote, failed", "promote --version 1 --out LOCKED", 3, "failed", {});
    row("rollback", "rollback SITE", 0, "done",
        {"before", "target", "version", "published", "dryRun"});
    row("rollback under another version", "rollback SITE --as 5", 0, "done",
        {"before", "target", "version", "published", "dryRun"});
    row("rollback, refused", "rollback SITE --as 1", 1, "refused", {});
    row("list", "list SITE", 0, "done", {"offered", "promotable", "builds"});
    row("list, refused", "list TREE", 1, "refused", {});
    row("diff", "diff SITE 1 2", 0, "done", {});
    row("diff, refused", "diff SITE 1 8", 1, "refused", {});
    row("verify", "verify SITE", 0, "done", {"builds"});
    row("verify, damaged", "verify DAMAGED", 5, "damaged", {"builds"});
    row("verify, not signed", "verify SITE --key PUB", 5, "damaged", {"builds"});
    row("verify, no server", "verify http://127.0.0.1:1 --name demo-app", 5, "damaged", {});
    row("prune", "prune SITE --keep 1", 0, "done", {});
    row("prune, number", "prune SITE --keep x", 2, "usage", {});
    row("serve, refused", "serve SITE --port x", 1, "refused", {});
    row("unknown command", "publish", 2, "usage", {});
    row("unknown option", "list --bad SITE", 2, "usage", {});
}

void TestKxpublishJson::EveryOutcomeIsOneObject()
{
    QFETCH(QStringList, words);
    QFETCH(int, status);
    QFETCH(QString, result);
    QFETCH(QStringList, members);
    PublishSite site;
    kxtest::TreeBuilder locked;
    site.Release(S("1"));
    site.Release(S("2"));
    if (words.contains(S("DAMAGED")))
        QVERIFY(QFile::remove(site.BuildPath(S("2"), S("files/app"))));
    // A directory in the place of the lock file lets no run have it.
    locked.File(S("packages/.kxpublish.lock/x"), "x");
    const kxtest::SecretKeyParts key(1);
    locked.File(S("key"), key.Text(), 0600).File(S("pub"), key.PublicText());
    words.replaceInStrings(S("DAMAGED"), site.Server())
        .replaceInStrings(S("NEW"), locked.Path(S("new")))
        .replaceInStrings(S("KEY"), locked.Path(S("key")))
        .replaceInStrings(S("PUB"), locked.Path(S("pub")))
        .replaceInStrings(S("SITE"), site.Server())
        .replaceInStrings(S("LOCKED"), locked.Root())
        .replaceInStrings(S("TREE"), site.Tree().Root());

    const PublishResult run = kxtest::RunPublish(words + QStringList{S("--json")});
    QJsonParseError problem;
    const QJsonObject object =
        QJsonDocument::fromJson(run.out.join(u'\n').toUtf8(), &problem).object();
    QVERIFY2(problem.error == QJsonParseError::NoError, qPrintable(run.out.join(u'\n')));
    QCOMPARE(run.status, status);
    QCOMPARE(object.value(S("exit")).toInt(-1), status);
    QCOMPARE(object.value(S("result")).toString(), result);
    const bool isKnown = words.first() != S("publish");
    QCOMPARE(object.value(S("command")).toString(), isKnown ? words.first() : QString());
    QVERIFY(object.value(S("problems")).isArray());
    QVERIFY(object.value(S("warnings")).isArray());
    // What is not done says why. A verification tells it build by build.
    const bool tells = !object.value(S("problems")).toArray().isEmpty();
    if (status != 5)
        QCOMPARE(tells, status != 0);
    const QString documented = Documented(words.first());
    for (const QString& member : MembersOf(object))
        QVERIFY2(documented.contains(u'`' + member + u'`'), qPrintable(member));
    for (const QString& member : std::as_const(members))
        QVERIFY2(object.contains(member), qPrintable(member));
}

QTEST_GUILESS_MAIN(TestKxpublishJson)
#include "tst_kxpublish_json.moc"
