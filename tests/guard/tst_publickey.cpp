#include "minisign.h"
#include "treebuilder.h"

#include <kxguard/publickey.h>

#include <QTest>

#include <sys/stat.h>

using guard::Problem;
using guard::PublicKey;

namespace {

const QByteArray commentLine = "untrusted comment: a key\n";

QByteArray Line(const QByteArray& bytes)
{
    return bytes.toBase64();
}

PublicKey Example()
{
    return kxtest::SeededKey(7).Public();
}

} // namespace

/** Public keys in the form of minisign. */
class TestPublicKey : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void KeyOfMinisignIsRead();
    void LineAloneIsRead();
    void WrittenFileIsReadAgain();
    void IdIsALittleEndianNumber();
    void PartsOfWrongLengthsMakeNoKey();
    void OtherTextsAreRefused_data();
    void OtherTextsAreRefused();
    void RefusedTextLeavesTheKeyAlone();
    void EveryTruncationIsRefused();
    void EveryChangedBitMakesAnotherKeyOrNone();
    void FilesThatCannotBeReadAreNamed_data();
    void FilesThatCannotBeReadAreNamed();
    void LinkToAKeyFileIsFollowed();
    void LargestFileIsRead();
};

void TestPublicKey::KeyOfMinisignIsRead()
{
    const kxtest::TreeBuilder tree;
    const kxtest::Minisign minisign(tree.Root());
    const QList<QByteArray> lines = kxtest::Read(minisign.PublicKeyPath()).split('\n');
    PublicKey key;
    const Problem problem = PublicKey::Load(minisign.PublicKeyPath(), &key);
    QVERIFY2(!problem, qPrintable(problem.text));
    QVERIFY(key.IsValid());
    QCOMPARE(key.Text(), lines.at(1));
    QCOMPARE(key.Id().size(), 8);
    QCOMPARE(key.Key().size(), 32);
    // minisign names the id in its comment.
    QCOMPARE(lines.at(0), "untrusted comment: minisign public key " + key.IdText().toLatin1());
    QCOMPARE(key.FileText(), kxtest::Read(minisign.PublicKeyPath()));
}

void TestPublicKey::LineAloneIsRead()
{
    for (const QByteArray& text :
         {Example().Text(), Example().Text() + '\n', commentLine + Example().Text(),
          "untrusted comment: \n" + Example().Text() + '\n'}) {
        PublicKey key;
        const Problem problem = PublicKey::Parse(text, &key);
        QVERIFY2(!problem, qPrintable(problem.text));
        QVERIFY(key == Example());
    }
}

void TestPublicKey::WrittenFileIsReadAgain()
{
    PublicKey key;
    QVERIFY(!PublicKey::Parse(Example().FileText(), &key));
    QVERIFY(key == Example());
    QVERIFY(key != kxtest::SeededKey(8).Public());
    QVERIFY(PublicKey(key.Id(), kxtest::SeededKey(8).Public().Key()) != key);
    QVERIFY(PublicKey(kxtest::SeededKey(8).Public().Id(), key.Key()) != key);
}

void TestPublicKey::IdIsALittleEndianNumber()
{
    const QByteArray id = QByteArray::fromHex("0123456789abcdef");
    QCOMPARE(PublicKey(id, QByteArray(32, 'k')).IdText(), QStringLiteral("EFCDAB8967452301"));
    QCOMPARE(guard::KeyIdText(id), QStringLiteral("EFCDAB8967452301"));
    // As any other number: minisign writes no zeros in front.
    QCOMPARE(guard::KeyIdText(QByteArray::fromHex("6521c1822896f401")),
             QStringLiteral("1F4962882C12165"));
}

void TestPublicKey::PartsOfWrongLengthsMakeNoKey()
{
    const QByteArray id(8, 'i');
    const QByteArray bytes(32, 'k');
    QVERIFY(PublicKey(id, bytes).IsValid());
    for (const PublicKey& key :
         {PublicKey(), PublicKey(id.chopped(1), bytes), PublicKey(id + 'i', bytes),
          PublicKey(id, bytes.chopped(1)), PublicKey(id, bytes + 'k'), PublicKey({}, {})}) {
        QVERIFY(!key.IsValid());
        QVERIFY(key.Id().isEmpty());
        QVERIFY(key.Key().isEmpty());
        QVERIFY(key.Text().isEmpty());
        QVERIFY(key.FileText().isEmpty());
    }
}

void TestPublicKey::OtherTextsAreRefused_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("reason");
    const QString noLine = "no line of 56 characters";
    const QString notEd = "algorithm";
    const QByteArray line = Example().Text();
    const QByteArray bytes = "Ed" + Example().Id() + Example().Key();

    QTest::newRow("empty") << QByteArray() << noLine;
    QTest::newRow("line end alone") << QByteArray("\n") << noLine;
    QTest::newRow("comment alone") << commentLine << noLine;
    QTest::newRow("comment and empty line") << commentLine + '\n' << noLine;
    QTest::newRow("carriage return") << line + "\r\n" << noLine;
    QTest::newRow("carriage return after comment") << "untrusted comment: a key\r\n" + line + "\r\n"
                                                   << noLine;
    QTest::newRow("blank before") << ' ' + line << noLine;
    QTest::newRow("blank after") << line + ' ' << noLine;
    QTest::newRow("two line ends") << line + "\n\n"
                                   << "first line";
    QTest::newRow("third line") << commentLine + line + "\nmore\n" << noLine;
    QTest::newRow("two keys") << commentLine + line + '\n' + line + '\n' << noLine;
    QTest::newRow("another first line") << "comment\n" + line << "first line";
    QTest::newRow("trusted comment") << "trusted comment: a key\n" + line << "first line";
    QTest::newRow("key twice") << line + '\n' + line << "first line";
    QTest::newRow("byte too few") << Line(bytes.chopped(1)) << noLine;
    QTest::newRow("byte too many") << Line(bytes + 'x') << noLine;
    QTest::newRow("blank within") << line.left(20) + ' ' + line.mid(21) << noLine;
    QTest::newRow("null within") << line.left(20) + '\0' + line.mid(21) << noLine;
    QTest::newRow("letters of base64url") << QByteArray(line).replace(20, 1, "_") << noLine;
    QTest::newRow("padding within") << QByteArray(line).replace(54, 2, "==") << noLine;
    QTest::newRow("algorithm of prehashed signatures") << Line("ED" + bytes.mid(2)) << notEd;
    QTest::newRow("unknown algorithm") << Line("Xx" + bytes.mid(2)) << notEd;
    QTest::newRow("secret key") << commentLine + Line("Ed" + QByteArray(156, 's')) + '\n'
                                << "secret key";
    QTest::newRow("one byte larger than 64 KiB")
        << "untrusted comment: " + QByteArray(64 * 1024 - 19 - 57 + 1, 'c') + '\n' + line
        << "larger than";
}

void TestPublicKey::OtherTextsAreRefused()
{
    QFETCH(QByteArray, text);
    QFETCH(QString, reason);
    PublicKey key;
    const Problem problem = PublicKey::Parse(text, &key);
    QCOMPARE(problem.code, int(guard::KeyMalformed));
    QVERIFY2(problem.text.contains(reason), qPrintable(problem.text));
    QVERIFY(!key.IsValid());
}

void TestPublicKey::RefusedTextLeavesTheKeyAlone()
{
    PublicKey key = Example();
    QVERIFY(PublicKey::Parse("no key", &key));
    QVERIFY(key == Example());
}

void TestPublicKey::EveryTruncationIsRefused()
{
    const QByteArray text = Example().FileText();
    // Only the last line end may be missing.
    for (qsizetype size = 0; size < text.size() - 1; ++size) {
        PublicKey key;
        const Problem problem = PublicKey::Parse(text.left(size), &key);
        QVERIFY2(problem.code == guard::KeyMalformed, qPrintable(QString::number(size)));
    }
}

void TestPublicKey::EveryChangedBitMakesAnotherKeyOrNone()
{
    const QByteArray text = Example().Text();
    for (qsizetype at = 0; at < text.size(); ++at) {
        for (int bit = 0; bit < 8; ++bit) {
            QByteArray changed = text;
            changed[at] = static_cast<char>(changed.at(at) ^ (1 << bit));
            PublicKey key;
            if (PublicKey::Parse(changed, &key))
                QVERIFY(!key.IsValid());
            else
                QVERIFY(key != Example());
        }
    }
}

void TestPublicKey::FilesThatCannotBeReadAreNamed_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("reason");
    QTest::newRow("missing") << "missing"
                             << "No such file";
    QTest::newRow("directory") << "directory"
                               << "not a regular file";
    QTest::newRow("pipe") << "pipe"
                          << "not a regular file";
    QTest::newRow("dangling link") << "dangling"
                                   << "No such file";
    QTest::newRow("no key") << "text"
                            << "no line of 56 characters";
    QTest::newRow("larger than 64 KiB") << "large"
                                        << "larger than";
}

void TestPublicKey::FilesThatCannotBeReadAreNamed()
{
    QFETCH(QString, name);
    QFETCH(QString, reason);
    kxtest::TreeBuilder tree;
    tree.Dir("directory").File("text", "text").Sparse("large", 1024 * 1024);
    tree.Symlink("dangling", "nowhere");
    QCOMPARE(mkfifo(qPrintable(tree.Path("pipe")), 0600), 0);
    PublicKey key;
    const Problem problem = PublicKey::Load(tree.Path(name), &key);
    QCOMPARE(problem.code, int(guard::KeyMalformed));
    QVERIFY2(problem.text.contains(tree.Path(name)), qPrintable(problem.text));
    QVERIFY2(problem.text.contains(reason), qPrintable(problem.text));
}

void TestPublicKey::LinkToAKeyFileIsFollowed()
{
    kxtest::TreeBuilder tree;
    tree.File("key", Example().FileText()).Symlink("link", "key");
    PublicKey key;
    QVERIFY(!PublicKey::Load(tree.Path("link"), &key));
    QVERIFY(key == Example());
}

void TestPublicKey::LargestFileIsRead()
{
    const QByteArray line = Example().Text();
    const QByteArray text =
        "untrusted comment: " + QByteArray(64 * 1024 - 19 - 57, 'c') + '\n' + line;
    QCOMPARE(text.size(), 64 * 1024);
    kxtest::TreeBuilder tree;
    tree.File("key", text);
    PublicKey key;
    QVERIFY(!PublicKey::Load(tree.Path("key"), &key));
    QVERIFY(key == Example());
}

QTEST_GUILESS_MAIN(TestPublicKey)
#include "tst_publickey.moc"
