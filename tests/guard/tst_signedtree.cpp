#include "minisign.h"
#include "treebuilder.h"

#include <kxguard/signedtree.h>

#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

#include <functional>

using guard::PackageIdentity;
using guard::Problem;
using guard::Sums;
using kxtest::SeededKey;
using kxtest::TreeBuilder;

namespace {

const PackageIdentity identity{"demo-app", "2.4.1", "x64"};
const QByteArray zeros(64, '0');

const SeededKey& Key()
{
    static const SeededKey key(7);
    return key;
}

/** A tree with what a program has: nested files, links, a hidden file, an empty one. */
struct Site
{
    Site()
    {
        tree.File("bin/app", "program", 0755)
            .File("lib/libcore.so.2", kxtest::RandomBytes(600000, 1))
            .File("share/a b/c d.txt", "text")
            .File(".hidden/.settings", "hidden")
            .File("empty", "")
            .Symlink("lib/libcore.so", "libcore.so.2")
            .Symlink("share/outside", "../../elsewhere");
        Sign();
    }
    void Sign() { kxtest::SignTree(tree.Root(), Key(), identity); }
    /** Signs `list` as it stands. */
    void SignList(const QByteArray& list)
    {
        kxtest::Write(tree.Path("SHA256SUMS"), list);
        kxtest::Write(tree.Path("SHA256SUMS.minisig"), Key().Sign(list, identity).FileText());
    }
    Problem Check() const { return guard::CheckSignedTree(tree.Root(), {Key().Public()}, nullptr); }
    void Pipe(const QString& name) { QCOMPARE(mkfifo(qPrintable(tree.Path(name)), 0600), 0); }

    TreeBuilder tree;
};

using Change = std::function<void(Site&)>;

QByteArray FileLine(const QByteArray& name)
{
    return zeros + "  " + name + '\n';
}

Sums Example()
{
    Sums sums;
    sums.files = {{"a b/ c", zeros}, {"b", zeros}, {"*star", zeros}, {"#hash", zeros}};
    sums.links = {{"l", "../x"}, {"m n", "-> o"}};
    return sums;
}

} // namespace

Q_DECLARE_METATYPE(Change)

/** Lists of digests, and trees that are held to them. */
class TestSignedTree : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void ListIsWrittenSorted();
    void ListIsAcceptedBySha256sum();
    void ListIsReadAgain();
    void OtherListsAreRefused_data();
    void OtherListsAreRefused();
    void EveryTruncationIsRefused();
    void ChangedListMeansWhatItSaysOrNothing();
    void NamesAreRefused_data();
    void NamesAreRefused();
    void OddNamesAreAllowed();
    void TargetsAreRefused_data();
    void TargetsAreRefused();
    void EntriesThatExcludeEachOtherAreRefused_data();
    void EntriesThatExcludeEachOtherAreRefused();
    void NoTwoLinksHaveOneLine();

    void SignedTreeIsAccepted();
    void TreeOfTheRealToolsIsAccepted();
    void EmptyDirectoriesDoNotCount();
    void RootMayBeALink();
    void ChangedTreesAreRefused_data();
    void ChangedTreesAreRefused();
    void EveryChangedByteOfTheListIsRefused();
    void FiveDifferencesAreNamed();
    void WrongSignatureIsFoundBeforeTheListIsRead();
    void UnknownKeyIsNamed();
    void WithoutKeysNothingIsTrusted();
    void MissingRootIsRefused();
    void DeepTreesAreRead();
    void TreeThatIsTooDeepIsRefused();
    void IdentityIsCompared_data();
    void IdentityIsCompared();
};

void TestSignedTree::ListIsWrittenSorted()
{
    QCOMPARE(Example().Text(), FileLine("#hash") + FileLine("*star") + FileLine("a b/ c") +
                                   FileLine("b") + "# link l -> ../x\n# link m n -> -> o\n");
}

void TestSignedTree::ListIsAcceptedBySha256sum()
{
    TreeBuilder tree;
    tree.File("plain", "1").File(" blank", "2").File("blank ", "3").File("*star", "4");
    tree.File("#hash", "5").File("a/b c/d", "6").File("-dash", "7").File("->", "8");
    tree.File(QString::fromUtf16(u"\u00e4\u20ac\U0001f512\ufeff"), "9").File("# link x", "10");
    tree.File("a/-", "11").File("SHA256SUMS.txt", "12").File("quo\"te'", "13");
    tree.File(zeros + "  x", "14").File("empty", "").Symlink("link", "plain");
    const Sums sums = kxtest::SumsOf(tree.Root());
    QCOMPARE(sums.Violation(), QString());
    QCOMPARE(sums.files.size(), 15);
    tree.File("SHA256SUMS", sums.Text());
    kxtest::ProgramResult result =
        kxtest::RunProgram("sha256sum", {"-c", "--strict", "SHA256SUMS"}, tree.Root());
    QVERIFY2(result.status == 0, result.output.constData());
    QCOMPARE(result.output.count(": OK\n"), 15);
    tree.File("a/b c/d", "changed");
    result = kxtest::RunProgram("sha256sum", {"-c", "--strict", "SHA256SUMS"}, tree.Root());
    QVERIFY(result.status > 0);
}

void TestSignedTree::ListIsReadAgain()
{
    Sums sums;
    const Problem problem = Sums::Parse(Example().Text(), &sums);
    QVERIFY2(!problem, qPrintable(problem.text));
    QCOMPARE(sums.files, Example().files);
    QCOMPARE(sums.links, Example().links);
    QVERIFY(!Sums::Parse("# link a -> b\n", &sums));
    QVERIFY(sums.files.isEmpty());
}

void TestSignedTree::OtherListsAreRefused_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("reason");
    QTest::newRow("empty") << QByteArray() << "empty";
    QTest::newRow("no line end") << FileLine("a").chopped(1) << "line 1: it has no end";
    QTest::newRow("empty line") << QByteArray("\n") << "neither";
    QTest::newRow("empty line after") << FileLine("a") + '\n' << "line 2: it is neither";
    QTest::newRow("carriage return") << FileLine("a\r") << "control character";
    QTest::newRow("one blank") << zeros + " a\n"
                               << "neither";
    QTest::newRow("binary mode") << zeros + " *a\n"
                                 << "neither";
    QTest::newRow("three blanks and nothing") << zeros + "  \n"
                                              << "empty";
    QTest::newRow("upper case") << QByteArray(64, 'A') + "  a\n"
                                << "64 lower-case";
    QTest::newRow("digest too short") << zeros.chopped(1) + "  a\n"
                                      << "neither";
    QTest::newRow("digest too long") << zeros + "0  a\n"
                                     << "neither";
    QTest::newRow("escaped line") << '\\' + FileLine("a") << "neither";
    QTest::newRow("tagged line") << "SHA256 (a) = " + zeros + '\n' << "neither";
    QTest::newRow("comment") << "# comment\n" + FileLine("a") << "neither";
    QTest::newRow("blank before") << ' ' + FileLine("a") << "neither";
    QTest::newRow("not sorted") << FileLine("b") + FileLine("a")
                                << "line 2: 'a' is not in its place";
    QTest::newRow("twice") << FileLine("a") + FileLine("a") << "not in its place";
    QTest::newRow("links not sorted")
        << QByteArray("# link b -> x\n# link a -> x\n") << "not in its place";
    QTest::newRow("link twice") << QByteArray("# link a -> x\n# link a -> y\n")
                                << "not in its place";
    QTest::newRow("file after links") << "# link a -> x\n" + FileLine("b") << "after the links";
    QTest::newRow("file and link") << FileLine("a") + "# link a -> x\n"
                                   << "twice";
    QTest::newRow("below a link") << FileLine("a/b") + "# link a -> x\n"
                                  << "below 'a'";
    QTest::newRow("below a file") << FileLine("a") + FileLine("a/b") << "below 'a'";
    QTest::newRow("link below a link")
        << QByteArray("# link a -> x\n# link a/b/c -> y\n") << "below 'a'";
    QTest::newRow("below a file, others between")
        << FileLine("a") + FileLine("a!") + FileLine("a-b") + FileLine("a/b") << "below 'a'";
    QTest::newRow("no target") << QByteArray("# link a -> \n") << "target is empty";
    QTest::newRow("no arrow") << QByteArray("# link a\n") << "NAME -> TARGET";
    QTest::newRow("link without name") << QByteArray("# link  -> x\n") << "name is empty";
    QTest::newRow("two arrows") << QByteArray("# link a -> b -> c\n") << "target has ' -> '";
    QTest::newRow("arrow in a file") << FileLine("a -> b") << "name has ' -> '";
    QTest::newRow("name not in UTF-8") << FileLine("\xff") << "UTF-8";
    QTest::newRow("overlong UTF-8") << FileLine("\xc0\xaf") << "UTF-8";
    QTest::newRow("half a surrogate pair") << FileLine("\xed\xa0\x80") << "UTF-8";
    QTest::newRow("target not in UTF-8") << QByteArray("# link a -> \xff\n") << "UTF-8";
    QTest::newRow("null") << FileLine(QByteArray("a\0b", 3)) << "control character";
    QTest::newRow("leads out") << FileLine("../a") << "leads out";
    QTest::newRow("mark of byte order") << "\xef\xbb\xbf" + FileLine("a") << "neither";
    QTest::newRow("larger than 64 MiB") << QByteArray(64 * 1024 * 1024 + 1, '\n') << "larger than";
}

void TestSignedTree::OtherListsAreRefused()
{
    QFETCH(QByteArray, text);
    QFETCH(QString, reason);
    Sums sums;
    sums.files = {{"before", zeros}};
    const Problem problem = Sums::Parse(text, &sums);
    QCOMPARE(problem.code, int(guard::SumsMalformed));
    QVERIFY2(problem.text.contains(reason), qPrintable(problem.text));
    QCOMPARE(sums.files.keys(), QStringList{"before"});
}

void TestSignedTree::EveryTruncationIsRefused()
{
    const QByteArray text = Example().Text();
    for (qsizetype size = 0; size < text.size(); ++size) {
        // A list that ends with a line is another list, which the signature is for.
        if (size > 0 && text.at(size - 1) == '\n')
            continue;
        Sums sums;
        QVERIFY2(Sums::Parse(text.left(size), &sums), qPrintable(QString::number(size)));
    }
}

void TestSignedTree::ChangedListMeansWhatItSaysOrNothing()
{
    const QByteArray text = Example().Text();
    int read = 0;
    for (qsizetype at = 0; at < text.size(); ++at) {
        for (int byte = 0; byte < 256; ++byte) {
            QByteArray changed = text;
            changed[at] = static_cast<char>(byte);
            Sums sums;
            if (Sums::Parse(changed, &sums))
                continue;
            ++read;
            QCOMPARE(sums.Text(), changed);
            QCOMPARE(sums.Violation(), QString());
        }
    }
    QVERIFY(read > 1000);
}

void TestSignedTree::NamesAreRefused_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("reason");
    QTest::newRow("empty") << QString() << "empty";
    QTest::newRow("absolute") << "/a"
                              << "absolute";
    QTest::newRow("leads out") << "a/../b"
                               << "leads out";
    QTest::newRow("dot") << "a/./b"
                         << "single dot";
    QTest::newRow("separator at the end") << "a/"
                                          << "separator";
    QTest::newRow("empty component") << "a//b"
                                     << "empty component";
    QTest::newRow("backslash") << "a\\b"
                               << "backslash";
    QTest::newRow("drive") << "c:a"
                           << "drive letter";
    QTest::newRow("line end") << "a\nb"
                              << "control character";
    QTest::newRow("carriage return") << "a\rb"
                                     << "control character";
    QTest::newRow("null") << QString("a") + QChar(0) << "control character";
    QTest::newRow("next line of Latin 1") << QString("a") + QChar(0x85) << "control character";
    QTest::newRow("arrow") << "a -> b"
                           << " -> ";
    QTest::newRow("half an arrow at the end") << "a ->"
                                              << " -> ";
    QTest::newRow("half a surrogate pair") << QString("a") + QChar(0xd800) << "Unicode";
    QTest::newRow("other half") << QString("a") + QChar(0xdc00) << "Unicode";
    QTest::newRow("list") << "SHA256SUMS"
                          << "file of the signature";
    QTest::newRow("signature") << "SHA256SUMS.minisig"
                               << "file of the signature";
    QTest::newRow("standard input") << "-"
                                    << "standard input";
    QTest::newRow("4097 characters") << QString(4097, 'a') << "longer";
}

void TestSignedTree::NamesAreRefused()
{
    QFETCH(QString, name);
    QFETCH(QString, reason);
    QVERIFY2(Sums::NameViolation(name).contains(reason), qPrintable(Sums::NameViolation(name)));
    Sums sums;
    sums.files = {{name, zeros}};
    QVERIFY2(sums.Violation().contains(reason), qPrintable(sums.Violation()));
    sums.files.clear();
    sums.links = {{name, "target"}};
    QVERIFY2(sums.Violation().contains(reason), qPrintable(sums.Violation()));
    QCOMPARE(sums.Text(), QByteArray());
    // What cannot be written cannot be read either.
    const Problem problem = Sums::Parse("# link " + name.toUtf8() + " -> target\n", &sums);
    QVERIFY2(problem || sums.links.firstKey() != name, qPrintable(name));
}

void TestSignedTree::OddNamesAreAllowed()
{
    for (const QString& name :
         {QString(" a "), QString("a/SHA256SUMS"), QString("a/-"), QString("->"), QString("->a"),
          QString("a -"), QString(".hidden"), QString("..."), QString("a/..b"), QString("#x"),
          QString(QChar(0xfeff)), QChar(0xfeff) + QString::fromUtf16(u"a\u2028b\U0001f512"),
          QString(4096, 'a')}) {
        QCOMPARE(Sums::NameViolation(name), QString());
        Sums sums;
        sums.files = {{name, zeros}};
        Sums read;
        const Problem problem = Sums::Parse(sums.Text(), &read);
        QVERIFY2(!problem, qPrintable(problem.text));
        QCOMPARE(read.files, sums.files);
        Sums links;
        links.links = {{name, "../" + name.left(10)}};
        QVERIFY(!Sums::Parse(links.Text(), &read));
        QCOMPARE(read.links, links.links);
    }
}

void TestSignedTree::TargetsAreRefused_data()
{
    QTest::addColumn<QString>("target");
    QTest::addColumn<QString>("reason");
    QTest::newRow("empty") << QString() << "empty";
    QTest::newRow("line end") << "a\nb"
                              << "control character";
    QTest::newRow("null") << QString("a") + QChar(0) << "control character";
    QTest::newRow("backslash") << "a\\b"
                               << "backslash";
    QTest::newRow("arrow") << "a -> b"
                           << " -> ";
    QTest::newRow("half a surrogate pair") << QString("a") + QChar(0xd800) << "Unicode";
    QTest::newRow("4097 characters") << QString(4097, 'a') << "longer";
}

void TestSignedTree::TargetsAreRefused()
{
    QFETCH(QString, target);
    QFETCH(QString, reason);
    QVERIFY2(Sums::TargetViolation(target).contains(reason),
             qPrintable(Sums::TargetViolation(target)));
    Sums sums;
    sums.links = {{"a", target}};
    QVERIFY2(sums.Violation().contains(reason), qPrintable(sums.Violation()));
    QCOMPARE(sums.Text(), QByteArray());
    const Problem problem = Sums::Parse("# link a -> " + target.toUtf8() + '\n', &sums);
    QVERIFY2(problem || sums.links.first() != target, qPrintable(target));
}

void TestSignedTree::EntriesThatExcludeEachOtherAreRefused_data()
{
    QTest::addColumn<QStringList>("files");
    QTest::addColumn<QStringList>("links");
    QTest::addColumn<QString>("violation");
    QTest::newRow("none") << QStringList() << QStringList() << "there is no entry";
    QTest::newRow("both") << QStringList{"a"} << QStringList{"a"} << "'a' is listed twice";
    QTest::newRow("below a link") << QStringList{"a/b"} << QStringList{"a"}
                                  << "'a/b' lies below 'a', which is not a directory";
    QTest::newRow("far below a file")
        << QStringList{"a", "a b", "a+", "a0", "b"} << QStringList{"a/b/c", "a-/b"}
        << "'a/b/c' lies below 'a', which is not a directory";
    QTest::newRow("neighbours") << QStringList{"a", "ab/c", "a b/c"} << QStringList{"a-/b", "b/a"}
                                << QString();
}

void TestSignedTree::EntriesThatExcludeEachOtherAreRefused()
{
    QFETCH(QStringList, files);
    QFETCH(QStringList, links);
    QFETCH(QString, violation);
    Sums sums;
    for (const QString& name : files)
        sums.files.insert(name, zeros);
    for (const QString& name : links)
        sums.links.insert(name, "target");
    QCOMPARE(sums.Violation(), violation);
    Sums read;
    QCOMPARE(bool(Sums::Parse(sums.Text(), &read)), !violation.isEmpty());
    // A digest that is none, whatever the names.
    sums.files.insert("z", "0");
    QVERIFY(!sums.Violation().isEmpty());
}

void TestSignedTree::NoTwoLinksHaveOneLine()
{
    // All short texts of the characters of the separator, as name and as target.
    QStringList texts{QString()};
    for (qsizetype i = 0; i < texts.size() && texts.at(i).size() < 4; ++i) {
        for (const char c : {' ', '-', '>', 'a'})
            texts.append(texts.at(i) + QLatin1Char(c));
    }
    QHash<QByteArray, QString> seen;
    for (const QString& name : std::as_const(texts)) {
        if (!Sums::NameViolation(name).isEmpty())
            continue;
        for (const QString& target : std::as_const(texts)) {
            if (!Sums::TargetViolation(target).isEmpty())
                continue;
            Sums sums;
            sums.links = {{name, target}};
            const QByteArray text = sums.Text();
            QVERIFY2(!seen.contains(text), text.constData());
            seen.insert(text, name);
        }
    }
    QVERIFY(seen.size() > 50000);
}

void TestSignedTree::SignedTreeIsAccepted()
{
    const Site site;
    PackageIdentity found;
    const Problem problem = guard::CheckSignedTree(site.tree.Root(), {Key().Public()}, &found);
    QVERIFY2(!problem, qPrintable(problem.text));
    QCOMPARE(guard::TrustedComment(found), guard::TrustedComment(identity));
    QVERIFY(!guard::CheckSignedTree(site.tree.Root() + '/', {SeededKey(8).Public(), Key().Public()},
                                    nullptr));
}

void TestSignedTree::TreeOfTheRealToolsIsAccepted()
{
    TreeBuilder tree;
    const TreeBuilder keys;
    tree.File("bin/app", "program").File("a b", "text").File("z", "").Symlink("link", "a b");
    const kxtest::ProgramResult listed = kxtest::RunProgram(
        "sh",
        {"-ec", "find . -type f -printf '%P\\n' | LC_ALL=C sort | tr '\\n' '\\0' |"
                " xargs -0 sha256sum > ../list; echo '# link link -> a b' >> ../list;"
                " mv ../list SHA256SUMS"},
        tree.Root());
    QVERIFY2(listed.status == 0, listed.output.constData());
    const kxtest::Minisign minisign(keys.Root());
    minisign.Sign(tree.Path("SHA256SUMS"), {"-t", guard::TrustedComment(identity)});
    Problem problem = guard::CheckSignedTree(tree.Root(), {minisign.Public()}, nullptr);
    QVERIFY2(!problem, qPrintable(problem.text));
    tree.File("bin/app", "Program");
    problem = guard::CheckSignedTree(tree.Root(), {minisign.Public()}, nullptr);
    QCOMPARE(problem.code, int(guard::SumsDiffer));
}

void TestSignedTree::EmptyDirectoriesDoNotCount()
{
    Site site;
    site.tree.Dir("new/.hidden/empty");
    QVERIFY(!site.Check());
}

void TestSignedTree::RootMayBeALink()
{
    const Site site;
    TreeBuilder elsewhere;
    elsewhere.Symlink("link", site.tree.Root());
    QVERIFY(!guard::CheckSignedTree(elsewhere.Path("link"), {Key().Public()}, nullptr));
}

void TestSignedTree::ChangedTreesAreRefused_data()
{
    QTest::addColumn<Change>("change");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("reason");
    const auto add = [](const char* row, int code, const char* reason, const Change& change) {
        QTest::newRow(row) << change << code << QString::fromUtf8(reason);
    };
    const int missing = guard::SignatureMissing;
    const int malformed = guard::SignatureMalformed;
    const int wrong = guard::SignatureWrong;
    const int badList = guard::SumsMalformed;
    const int differ = guard::SumsDiffer;

    add("no list", missing, "not signed, there is no 'SHA256SUMS'",
        [](Site& s) { s.tree.Remove("SHA256SUMS"); });
    add("no signature", missing, "not signed, there is no 'SHA256SUMS.minisig'",
        [](Site& s) { s.tree.Remove("SHA256SUMS.minisig"); });
    add("list is a link", missing, "SHA256SUMS': it is not a regular file", [](Site& s) {
        TreeBuilder(s.tree.Root()).File("copy", kxtest::Read(s.tree.Path("SHA256SUMS")));
        s.tree.Remove("SHA256SUMS").Symlink("SHA256SUMS", "copy");
    });
    add("signature is a link", missing, "minisig': it is not a regular file", [](Site& s) {
        s.tree.File("copy", kxtest::Read(s.tree.Path("SHA256SUMS.minisig")));
        s.tree.Remove("SHA256SUMS.minisig").Symlink("SHA256SUMS.minisig", "copy");
    });
    add("list is a directory", missing, "not a regular file",
        [](Site& s) { s.tree.Remove("SHA256SUMS").Dir("SHA256SUMS"); });
    add("list is a pipe", missing, "not a regular file", [](Site& s) {
        s.tree.Remove("SHA256SUMS");
        s.Pipe("SHA256SUMS");
    });
    add("signature is a pipe", missing, "not a regular file", [](Site& s) {
        s.tree.Remove("SHA256SUMS.minisig");
        s.Pipe("SHA256SUMS.minisig");
    });
    add("signature larger than 16 KiB", malformed, "larger than 16384 bytes",
        [](Site& s) { s.tree.Sparse("SHA256SUMS.minisig", qint64(1) << 40); });
    add("list larger than 64 MiB", badList, "larger than 67108864 bytes",
        [](Site& s) { s.tree.Sparse("SHA256SUMS", qint64(1) << 40); });
    add("signature is none", malformed, "four lines",
        [](Site& s) { s.tree.File("SHA256SUMS.minisig", "x"); });
    add("signature is empty", malformed, "four lines",
        [](Site& s) { s.tree.File("SHA256SUMS.minisig", ""); });
    add("signature of another list", wrong, "the signature is wrong", [](Site& s) {
        s.tree.File("SHA256SUMS.minisig", Key().Sign("other", identity).FileText());
    });
    add("list changed", wrong, "files were changed after signing", [](Site& s) {
        s.tree.File("SHA256SUMS", kxtest::Read(s.tree.Path("SHA256SUMS")) + "# x\n");
    });
    add("comment is no identity", malformed, "trusted comment", [](Site& s) {
        const QByteArray list = kxtest::Read(s.tree.Path("SHA256SUMS"));
        s.tree.File("SHA256SUMS.minisig",
                    Key().Sign(list, "timestamp:1\tfile:SHA256SUMS").FileText());
    });
    add("signed list with a comment", badList, "SHA256SUMS': line 1",
        [](Site& s) { s.SignList("# made by hand\n" + kxtest::Read(s.tree.Path("SHA256SUMS"))); });
    add("signed list without line end", badList, "it has no end",
        [](Site& s) { s.SignList(kxtest::Read(s.tree.Path("SHA256SUMS")).chopped(1)); });
    add("signed empty list", badList, "it is empty", [](Site& s) { s.SignList({}); });

    add("file changed", differ, "'bin/app' has another content",
        [](Site& s) { s.tree.File("bin/app", "Program"); });
    add("large file changed at its end", differ, "'lib/libcore.so.2' has another content",
        [](Site& s) {
            QByteArray bytes = kxtest::RandomBytes(600000, 1);
            bytes.back() = static_cast<char>(bytes.back() ^ 1);
            s.tree.File("lib/libcore.so.2", bytes);
        });
    add("file longer", differ, "'empty' has another content",
        [](Site& s) { s.tree.File("empty", "x"); });
    add("file shorter", differ, "'bin/app' has another content",
        [](Site& s) { s.tree.File("bin/app", ""); });
    add("file missing", differ, "'bin/app' is missing", [](Site& s) { s.tree.Remove("bin/app"); });
    add("directory missing", differ, "'share/a b/c d.txt' is missing, 'share/outside' is missing",
        [](Site& s) { s.tree.Remove("share"); });
    add("link missing", differ, "'lib/libcore.so' is missing",
        [](Site& s) { s.tree.Remove("lib/libcore.so"); });
    add("file too many", differ, "'bin/more' is not in the list",
        [](Site& s) { s.tree.File("bin/more", ""); });
    add("hidden file too many", differ, "'.more' is not in the list",
        [](Site& s) { s.tree.File(".more", ""); });
    add("file in a hidden directory too many", differ, "'.a/.b/c' is not in the list",
        [](Site& s) { s.tree.File(".a/.b/c", ""); });
    add("list below", differ, "'bin/SHA256SUMS' is not in the list",
        [](Site& s) { s.tree.File("bin/SHA256SUMS", ""); });
    add("signature of another name", differ, "'SHA256SUMS.sig' is not in the list",
        [](Site& s) { s.tree.File("SHA256SUMS.sig", ""); });
    add("link too many", differ, "'more' is not in the list",
        [](Site& s) { s.tree.Symlink("more", "bin"); });
    add("link to another target", differ,
        "'lib/libcore.so' leads to 'libcore.so.3' instead of 'libcore.so.2'",
        [](Site& s) { s.tree.Remove("lib/libcore.so").Symlink("lib/libcore.so", "libcore.so.3"); });
    add("target spelled otherwise", differ, "leads to './libcore.so.2'", [](Site& s) {
        s.tree.Remove("lib/libcore.so").Symlink("lib/libcore.so", "./libcore.so.2");
    });
    add("target not in UTF-8", differ, "'lib/libcore.so' leads to", [](Site& s) {
        s.tree.Remove("lib/libcore.so");
        QCOMPARE(symlink("libcore.so.\xff", qPrintable(s.tree.Path("lib/libcore.so"))), 0);
    });
    add("file for a link", differ, "'lib/libcore.so' is a file instead of a link",
        [](Site& s) { s.tree.Remove("lib/libcore.so").File("lib/libcore.so", "libcore.so.2"); });
    add("link for a file", differ, "'bin/app' is a link instead of a file", [](Site& s) {
        s.tree.File("../" + QFileInfo(s.tree.Root()).fileName() + ".app", "program")
            .Remove("bin/app")
            .Symlink("bin/app", "../../" + QFileInfo(s.tree.Root()).fileName() + ".app");
    });
    add("directory for a file", differ, "'bin/app' is a directory",
        [](Site& s) { s.tree.Remove("bin/app").Dir("bin/app"); });
    add("directory for a link", differ, "'lib/libcore.so' is a directory",
        [](Site& s) { s.tree.Remove("lib/libcore.so").Dir("lib/libcore.so"); });
    add("link for a directory", differ, "'bin' is not in the list, 'bin/app' is missing",
        [](Site& s) {
            QVERIFY(QFile::rename(s.tree.Path("bin"), s.tree.Root() + ".bin"));
            s.tree.Symlink("bin", s.tree.Root() + ".bin");
        });
    add("pipe too many", differ, "'pipe' is neither a file nor a link",
        [](Site& s) { s.Pipe("pipe"); });
    add("pipe for a file", differ, "'bin/app' is neither a file nor a link", [](Site& s) {
        s.tree.Remove("bin/app");
        s.Pipe("bin/app");
    });
    add("name not in UTF-8", differ, "has a name that no list can have", [](Site& s) {
        QFile file(s.tree.Root() + "/x");
        QVERIFY(file.open(QIODevice::WriteOnly));
        QCOMPARE(
            rename(qPrintable(s.tree.Path("x")), (s.tree.Root().toUtf8() + "/x\xff").constData()),
            0);
    });
    add("name with a line end", differ, "'a?b' is not in the list",
        [](Site& s) { s.tree.File("a\nb", ""); });
    add("other case", differ, "'Empty' is not in the list, 'empty' is missing",
        [](Site& s) { s.tree.Remove("empty").File("Empty", ""); });
}

void TestSignedTree::ChangedTreesAreRefused()
{
    QFETCH(Change, change);
    QFETCH(int, code);
    QFETCH(QString, reason);
    Site site;
    QVERIFY(!site.Check());
    change(site);
    PackageIdentity found{"untouched", "", ""};
    const Problem problem = guard::CheckSignedTree(site.tree.Root(), {Key().Public()}, &found);
    // Qt cannot remove what it cannot name.
    unlink((site.tree.Root().toUtf8() + "/x\xff").constData());
    kxtest::Remove(site.tree.Root() + ".bin");
    kxtest::Remove(site.tree.Root() + ".app");
    QVERIFY2(problem.code == code && problem.text.contains(reason), qPrintable(problem.text));
    QVERIFY2(problem.text.startsWith("Cannot accept '" + site.tree.Root()),
             qPrintable(problem.text));
    QCOMPARE(found.package, QStringLiteral("untouched"));
}

void TestSignedTree::EveryChangedByteOfTheListIsRefused()
{
    TreeBuilder tree;
    tree.File("a", "1").Symlink("b", "a");
    kxtest::SignTree(tree.Root(), Key(), identity);
    const auto refusal = [&tree] {
        return guard::CheckSignedTree(tree.Root(), {Key().Public()}, nullptr).code;
    };
    QCOMPARE(refusal(), 0);
    const QByteArray list = kxtest::Read(tree.Path("SHA256SUMS"));
    for (qsizetype at = 0; at < list.size(); ++at) {
        QByteArray changed = list;
        changed[at] = static_cast<char>(changed.at(at) ^ 1);
        kxtest::Write(tree.Path("SHA256SUMS"), changed);
        QCOMPARE(refusal(), int(guard::SignatureWrong));
        kxtest::Write(tree.Path("SHA256SUMS"), list.left(at));
        QCOMPARE(refusal(), int(guard::SignatureWrong));
    }
    kxtest::Write(tree.Path("SHA256SUMS"), list);
    QCOMPARE(refusal(), 0);
}

void TestSignedTree::FiveDifferencesAreNamed()
{
    Site site;
    for (int i = 0; i < 5; ++i)
        site.tree.File(QStringLiteral("x%1").arg(i), "");
    Problem problem = site.Check();
    QVERIFY2(problem.text.endsWith("'x3' is not in the list, 'x4' is not in the list."),
             qPrintable(problem.text));
    site.tree.File("x5", "").File("bin/app", "changed").Remove("empty");
    problem = site.Check();
    QVERIFY2(problem.text.endsWith(", and 3 more."), qPrintable(problem.text));
    QCOMPARE(problem.text.count(" is not in the list"), 5);
}

void TestSignedTree::WrongSignatureIsFoundBeforeTheListIsRead()
{
    Site site;
    site.tree.File("SHA256SUMS", QByteArray("\0 no list\n", 10));
    QCOMPARE(site.Check().code, int(guard::SignatureWrong));
}

void TestSignedTree::UnknownKeyIsNamed()
{
    Site site;
    kxtest::SignTree(site.tree.Root(), SeededKey(9), identity);
    const Problem problem = site.Check();
    QCOMPARE(problem.code, int(guard::SignatureUnknownKey));
    QCOMPARE(problem.text,
             QStringLiteral("Cannot accept '%1': it is signed with the key %2, which is not "
                            "trusted; trusted: %3.")
                 .arg(site.tree.Path("SHA256SUMS.minisig"), SeededKey(9).Public().IdText(),
                      Key().Public().IdText()));
}

void TestSignedTree::WithoutKeysNothingIsTrusted()
{
    const Site site;
    QCOMPARE(guard::CheckSignedTree(site.tree.Root(), {}, nullptr).code,
             int(guard::SignatureUnknownKey));
    QCOMPARE(guard::CheckSignedTree(site.tree.Root(), {guard::PublicKey()}, nullptr).code,
             int(guard::SignatureUnknownKey));
}

void TestSignedTree::MissingRootIsRefused()
{
    TreeBuilder tree;
    tree.File("file", "");
    for (const char* name : {"missing", "file"}) {
        const Problem problem = guard::CheckSignedTree(tree.Path(name), {Key().Public()}, nullptr);
        QCOMPARE(problem.code, int(guard::PackageUnreadable));
        QVERIFY2(problem.text.contains(tree.Path(name)), qPrintable(problem.text));
    }
}

void TestSignedTree::DeepTreesAreRead()
{
    TreeBuilder tree;
    tree.File(QString("d/").repeated(200) + "file", "deep");
    kxtest::SignTree(tree.Root(), Key(), identity);
    Problem problem = guard::CheckSignedTree(tree.Root(), {Key().Public()}, nullptr);
    QVERIFY2(!problem, qPrintable(problem.text));
    tree.File(QString("d/").repeated(200) + "more", "deep");
    problem = guard::CheckSignedTree(tree.Root(), {Key().Public()}, nullptr);
    QCOMPARE(problem.code, int(guard::SumsDiffer));
}

void TestSignedTree::TreeThatIsTooDeepIsRefused()
{
    Site site;
    const kxtest::ProgramResult made = kxtest::RunProgram(
        "sh",
        {"-ec", "d=$(printf %0200d 0); for i in $(seq 30); do mkdir $d; cd -P $d; done; : > file"},
        site.tree.Root());
    QVERIFY2(made.status == 0, made.output.constData());
    const Problem problem = site.Check();
    kxtest::RunProgram("rm", {"-rf", site.tree.Path(QString(200, '0'))});
    QCOMPARE(problem.code, int(guard::SumsDiffer));
    QVERIFY2(problem.text.contains("has a name that no list can have"), qPrintable(problem.text));
}

void TestSignedTree::IdentityIsCompared_data()
{
    QTest::addColumn<QStringList>("wanted");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("text");
    QTest::newRow("all") << QStringList{"demo-app", "2.4.1", "x64"} << 0 << QString();
    QTest::newRow("nothing") << QStringList{"", "", ""} << 0 << QString();
    QTest::newRow("package alone") << QStringList{"demo-app", "", ""} << 0 << QString();
    QTest::newRow("other package")
        << QStringList{"demo", "2.4.1", "x64"} << int(guard::SignaturePackage)
        << "it is signed for another package: 'demo-app' instead of 'demo'";
    QTest::newRow("other case") << QStringList{"Demo-App", "", ""} << int(guard::SignaturePackage)
                                << "it is signed for another package: 'demo-app' instead of "
                                   "'Demo-App'";
    QTest::newRow("other platform")
        << QStringList{"demo-app", "2.4.1", "x86"} << int(guard::SignaturePackage)
        << "it is signed for another platform: 'x64' instead of 'x86'";
    QTest::newRow("other version")
        << QStringList{"demo-app", "2.4.2", "x64"} << int(guard::SignatureVersion)
        << "it is signed for another version: '2.4.1' instead of '2.4.2'";
    QTest::newRow("equal version spelled otherwise")
        << QStringList{"", "2.4.1.0", ""} << int(guard::SignatureVersion)
        << "it is signed for another version: '2.4.1' instead of '2.4.1.0'";
}

void TestSignedTree::IdentityIsCompared()
{
    QFETCH(QStringList, wanted);
    QFETCH(int, code);
    QFETCH(QString, text);
    const Problem problem =
        guard::CompareIdentity(identity, {wanted.at(0), wanted.at(1), wanted.at(2)});
    QCOMPARE(problem.code, code);
    QCOMPARE(problem.text, text);
    if (!wanted.contains(QString()))
        QVERIFY(guard::CompareIdentity({}, {wanted.at(0), wanted.at(1), wanted.at(2)}));
}

QTEST_GUILESS_MAIN(TestSignedTree)
#include "tst_signedtree.moc"
