#include "minisign.h"
#include "treebuilder.h"

#include <kxguard/signature.h>

#include <QTest>

#include <atomic>
#include <thread>
#include <vector>

using guard::PackageIdentity;
using guard::Problem;
using guard::PublicKey;
using guard::Signature;
using kxtest::SeededKey;

namespace {

const QByteArray message = "what is signed, whatever it is";
const QByteArray comment = "package:demo-app version:2.4.1 platform:x64";
const PackageIdentity identity{"demo-app", "2.4.1", "x64"};

const SeededKey& Key()
{
    static const SeededKey key(7);
    return key;
}

QList<QByteArray> Lines(const QByteArray& text)
{
    return text.split('\n');
}

/** Base64 that means the same bytes to careless readers: a bit is set that belongs to none. */
QByteArray WithUnusedBit(QByteArray text)
{
    const QByteArray digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const qsizetype last = text.indexOf('=') - 1;
    text[last] = digits.at(digits.indexOf(text.at(last)) + 1);
    return text;
}

/** Parses and verifies as a host would. */
Problem Check(const QByteArray& text, const QByteArray& signedBytes = message)
{
    Signature signature;
    const Problem problem = Signature::Parse(text, &signature);
    return problem ? problem : signature.Verify(signedBytes, {Key().Public()});
}

QByteArray Flipped(QByteArray bytes, qsizetype at, int bit)
{
    bytes[at] = static_cast<char>(bytes.at(at) ^ (1 << bit));
    return bytes;
}

} // namespace

Q_DECLARE_METATYPE(guard::PackageIdentity)

/** Signatures in the form of minisign, and the trusted comment. */
class TestSignature : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // First, while nothing has initialized the cryptography and no process was started.
    void SeveralThreadsMayVerify();
    void SignatureOfMinisignIsGood_data();
    void SignatureOfMinisignIsGood();
    void LegacySignatureOfMinisignIsRefused();
    void MinisignAcceptsWhatIsWritten_data();
    void MinisignAcceptsWhatIsWritten();
    void MinisignRefusesWhatIsRefused();
    void DigestIsThatOfB2sum();
    void WrittenFileIsReadAgain();
    void LastLineEndMayBeMissing();
    void OtherTextsAreRefused_data();
    void OtherTextsAreRefused();
    void RefusedTextLeavesTheSignatureAlone();
    void CommentOfTheLargestSizeIsRead();
    void EveryTruncationIsRefused();
    void EveryChangedBitIsRefused();
    void EveryInsertedByteIsRefused();
    void EveryChangedBitOfTheMessageIsRefused();
    void EveryChangedBitOfTheKeyIsRefused();
    void PartsOfTwoSignaturesAreRefused_data();
    void PartsOfTwoSignaturesAreRefused();
    void SignatureOverTheMessageItselfIsRefused();
    void UnknownKeyIsNamedWithTheTrustedOnes();
    void OneOfSeveralKeysIsEnough();
    void KeysWithOneIdAreTriedAll();
    void SignatureWithoutPartsIsNone();
    void TrustedCommentNamesTheIdentity();
    void IdentitiesThatCannotBeSignedAreRefused_data();
    void IdentitiesThatCannotBeSignedAreRefused();
    void OtherCommentsAreRefused_data();
    void OtherCommentsAreRefused();
};

void TestSignature::SignatureOfMinisignIsGood_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QString>("expected");
    const QString own = QString::fromLatin1(comment);
    QTest::newRow("own comment") << message << QStringList{"-t", own} << own;
    QTest::newRow("comment of its own") << message << QStringList() << QString();
    QTest::newRow("prehashed by name") << message << QStringList{"-H", "-t", own} << own;
    QTest::newRow("empty file") << QByteArray() << QStringList{"-t", own} << own;
    QTest::newRow("large file") << kxtest::RandomBytes(3 * 1024 * 1024 + 1, 1)
                                << QStringList{"-t", own} << own;
    QTest::newRow("long comment") << message << QStringList{"-t", QString(1000, 'c')}
                                  << QString(1000, 'c');
}

void TestSignature::SignatureOfMinisignIsGood()
{
    QFETCH(QByteArray, content);
    QFETCH(QStringList, options);
    QFETCH(QString, expected);
    kxtest::TreeBuilder tree;
    tree.File("file", content);
    const kxtest::Minisign minisign(tree.Root());
    Signature signature;
    Problem problem = Signature::Parse(minisign.Sign(tree.Path("file"), options), &signature);
    QVERIFY2(!problem, qPrintable(problem.text));
    problem = signature.Verify(content, {minisign.Public()});
    QVERIFY2(!problem, qPrintable(problem.text));
    QCOMPARE(signature.KeyId(), minisign.Public().Id());
    if (expected.isEmpty())
        QVERIFY(signature.TrustedComment().contains("\tfile:file"));
    else
        QCOMPARE(signature.TrustedComment(), expected);
    QCOMPARE(signature.Verify(content + 'x', {minisign.Public()}).code, int(guard::SignatureWrong));
}

void TestSignature::LegacySignatureOfMinisignIsRefused()
{
    kxtest::TreeBuilder tree;
    tree.File("file", message);
    const kxtest::Minisign minisign(tree.Root());
    Signature signature;
    const Problem problem = Signature::Parse(minisign.Sign(tree.Path("file"), {"-l"}), &signature);
    QCOMPARE(problem.code, int(guard::SignatureMalformed));
    QVERIFY2(problem.text.contains("legacy"), qPrintable(problem.text));
}

void TestSignature::MinisignAcceptsWhatIsWritten_data()
{
    QTest::addColumn<QByteArray>("trusted");
    QTest::newRow("identity") << comment;
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("blanks") << QByteArray(" a  b ");
    QTest::newRow("longest of minisign") << QByteArray(8000, 'c');
}

void TestSignature::MinisignAcceptsWhatIsWritten()
{
    QFETCH(QByteArray, trusted);
    kxtest::TreeBuilder tree;
    tree.File("file", message)
        .File("key", Key().Public().FileText())
        .File("signature", Key().Sign(message, trusted).FileText());
    const kxtest::ProgramResult result =
        kxtest::Minisign::Verify(tree.Path("file"), tree.Path("signature"), tree.Path("key"));
    QVERIFY2(result.status == 0, result.output.constData());
    QVERIFY2(result.output.contains("Trusted comment: " + trusted + '\n'),
             result.output.constData());
}

void TestSignature::MinisignRefusesWhatIsRefused()
{
    kxtest::TreeBuilder tree;
    tree.File("file", message + 'x')
        .File("key", Key().Public().FileText())
        .File("signature", Key().Sign(message, comment).FileText());
    QVERIFY(kxtest::Minisign::Verify(tree.Path("file"), tree.Path("signature"), tree.Path("key"))
                .status > 0);
}

void TestSignature::DigestIsThatOfB2sum()
{
    for (const qsizetype size : {0, 1, 127, 128, 129, 100000}) {
        kxtest::TreeBuilder tree;
        tree.RandomFile("file", size, 1);
        const kxtest::ProgramResult result = kxtest::RunProgram("b2sum", {tree.Path("file")});
        QCOMPARE(Signature::Digest(kxtest::Read(tree.Path("file"))).toHex(),
                 result.output.left(128));
    }
}

void TestSignature::WrittenFileIsReadAgain()
{
    const Signature written = Key().Sign(message, comment);
    QVERIFY(written.IsValid());
    Signature signature;
    QVERIFY(!Signature::Parse(written.FileText(), &signature));
    QCOMPARE(signature.FileText(), written.FileText());
    QCOMPARE(signature.TrustedComment(), QString::fromUtf8(comment));
    QCOMPARE(signature.SignatureText(), Lines(written.FileText()).at(1));
    QCOMPARE(signature.CommentSignatureText(), Lines(written.FileText()).at(3));
    const Problem problem = signature.Verify(message, {Key().Public()});
    QVERIFY2(!problem, qPrintable(problem.text));

    Signature fromParts;
    QVERIFY(!Signature::ParseParts(written.SignatureText(), comment, written.CommentSignatureText(),
                                   &fromParts));
    QCOMPARE(fromParts.FileText(), written.FileText());
}

void TestSignature::LastLineEndMayBeMissing()
{
    QVERIFY(!Check(Key().Sign(message, comment).FileText().chopped(1)));
}

void TestSignature::OtherTextsAreRefused_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("reason");
    const QByteArray good = Key().Sign(message, comment).FileText();
    const QList<QByteArray> lines = Lines(good);
    const QByteArray blob = QByteArray::fromBase64(lines.at(1));
    const auto with = [lines](int line, const QByteArray& replacement) {
        QList<QByteArray> changed = lines;
        changed[line] = replacement;
        return changed.join('\n');
    };
    const QString four = "not four lines";
    const QString first = "not 100 characters";
    const QString second = "not 88 characters";
    const QString trusted = "the trusted comment is";

    QTest::newRow("empty") << QByteArray() << four;
    QTest::newRow("three lines") << lines.mid(0, 3).join('\n') << four;
    QTest::newRow("five lines") << good + "more\n" << four;
    QTest::newRow("two line ends") << good + '\n' << four;
    QTest::newRow("line end before") << '\n' + good << four;
    QTest::newRow("carriage returns") << QByteArray(good).replace("\n", "\r\n") << first;
    QTest::newRow("carriage return of the signature") << with(1, lines.at(1) + '\r') << first;
    QTest::newRow("carriage return of the comment") << with(2, lines.at(2) + '\r') << trusted;
    QTest::newRow("carriage return at the end") << good.chopped(1) + "\r\n" << second;
    QTest::newRow("another first line") << with(0, "comment: x") << "first line";
    QTest::newRow("another third line") << with(2, "comment: x") << "third line";
    QTest::newRow("third line without blank") << with(2, "trusted comment:x") << "third line";
    QTest::newRow("untrusted comment third") << with(2, lines.at(0)) << "third line";
    QTest::newRow("unknown algorithm") << with(1, ("EX" + blob.mid(2)).toBase64()) << "unknown";
    QTest::newRow("algorithm of keys") << with(1, ("Ed" + blob.mid(2)).toBase64()) << "legacy";
    QTest::newRow("signature too short") << with(1, blob.chopped(1).toBase64()) << first;
    QTest::newRow("signature too long") << with(1, (blob + 'x').toBase64()) << first;
    QTest::newRow("unused bit") << with(1, WithUnusedBit(lines.at(1))) << first;
    QTest::newRow("unused bit of the second signature")
        << with(3, WithUnusedBit(lines.at(3))) << second;
    QTest::newRow("no padding") << with(1, lines.at(1).chopped(1)) << first;
    QTest::newRow("too much padding") << with(1, lines.at(1) + '=') << first;
    QTest::newRow("blank after the signature") << with(1, lines.at(1) + ' ') << first;
    QTest::newRow("blank before the signature") << with(1, ' ' + lines.at(1)) << first;
    QTest::newRow("blank within the signature")
        << with(1, QByteArray(lines.at(1)).replace(50, 1, " ")) << first;
    QTest::newRow("second signature too short")
        << with(3, QByteArray::fromBase64(lines.at(3)).chopped(1).toBase64()) << second;
    QTest::newRow("second signature too long")
        << with(3, (QByteArray::fromBase64(lines.at(3)) + 'x').toBase64()) << second;
    QTest::newRow("control character in the comment") << with(2, "trusted comment: a\x01"
                                                                 "b")
                                                      << trusted;
    QTest::newRow("null in the comment")
        << with(2, QByteArray("trusted comment: a\0b", 20)) << trusted;
    QTest::newRow("control character of Latin 1 in the comment")
        << with(2, "trusted comment: a\xc2\x85") << trusted;
    QTest::newRow("comment not in UTF-8") << with(2, "trusted comment: \xff") << trusted;
    QTest::newRow("half a surrogate pair in the comment")
        << with(2, "trusted comment: \xed\xa0\x80") << trusted;
    QTest::newRow("comment of 8193 bytes")
        << with(2, "trusted comment: " + QByteArray(8193, 'c')) << trusted;
    QTest::newRow("one byte larger than 16 KiB")
        << with(0, "untrusted comment: " +
                       QByteArray(16 * 1024 + 1 - 19 - (good.size() - lines.at(0).size()), 'c'))
        << "larger than";
}

void TestSignature::OtherTextsAreRefused()
{
    QFETCH(QByteArray, text);
    QFETCH(QString, reason);
    Signature signature;
    const Problem problem = Signature::Parse(text, &signature);
    QCOMPARE(problem.code, int(guard::SignatureMalformed));
    QVERIFY2(problem.text.contains(reason), qPrintable(problem.text));
    QVERIFY(!signature.IsValid());
}

void TestSignature::RefusedTextLeavesTheSignatureAlone()
{
    Signature signature = Key().Sign(message, comment);
    QVERIFY(Signature::Parse("no signature", &signature));
    QVERIFY(!signature.Verify(message, {Key().Public()}));
}

void TestSignature::CommentOfTheLargestSizeIsRead()
{
    QVERIFY(!Check(Key().Sign(message, QByteArray(8192, 'c')).FileText()));
    QVERIFY(
        !Check(Key().Sign(message, "tab\tand \xc3\xa4\xe2\x82\xac\xf0\x9f\x94\x92").FileText()));
    // A mark of byte order is a character of the comment and stays one.
    const Signature marked = Key().Sign(message, "\xef\xbb\xbfx");
    QVERIFY(!Check(marked.FileText()));
    QCOMPARE(marked.TrustedComment(), QChar(0xfeff) + QString("x"));
}

void TestSignature::EveryTruncationIsRefused()
{
    const QByteArray text = Key().Sign(message, comment).FileText();
    QVERIFY(!Check(text));
    for (qsizetype size = 0; size < text.size() - 1; ++size)
        QVERIFY2(Check(text.left(size)).code == guard::SignatureMalformed,
                 qPrintable(QString::number(size)));
}

void TestSignature::EveryChangedBitIsRefused()
{
    const QByteArray text = Key().Sign(message, comment).FileText();
    const qsizetype captionEnd = qsizetype(strlen("untrusted comment: "));
    const qsizetype firstEnd = text.indexOf('\n');
    for (qsizetype at = 0; at < text.size() - 1; ++at) {
        // The text of the first comment is nobody's word.
        if (at >= captionEnd && at < firstEnd)
            continue;
        for (int bit = 0; bit < 8; ++bit)
            QVERIFY2(Check(Flipped(text, at, bit)),
                     qPrintable(QStringLiteral("byte %1, bit %2").arg(at).arg(bit)));
    }
}

void TestSignature::EveryInsertedByteIsRefused()
{
    const QByteArray text = Key().Sign(message, comment).FileText();
    const qsizetype captionEnd = qsizetype(strlen("untrusted comment: "));
    const qsizetype firstEnd = text.indexOf('\n');
    for (qsizetype at = 0; at <= text.size(); ++at) {
        for (const char c : QByteArray("\n\r\t =Aa\0", 8)) {
            if (at >= captionEnd - 1 && at <= firstEnd && c != '\n')
                continue;
            QVERIFY2(Check(QByteArray(text).insert(at, c)),
                     qPrintable(QStringLiteral("byte %1 before %2").arg(int(c)).arg(at)));
        }
    }
}

void TestSignature::EveryChangedBitOfTheMessageIsRefused()
{
    const QByteArray text = Key().Sign(message, comment).FileText();
    for (qsizetype at = 0; at < message.size(); ++at) {
        for (int bit = 0; bit < 8; ++bit)
            QCOMPARE(Check(text, Flipped(message, at, bit)).code, int(guard::SignatureWrong));
        QCOMPARE(Check(text, message.left(at)).code, int(guard::SignatureWrong));
    }
    QCOMPARE(Check(text, message + '\0').code, int(guard::SignatureWrong));
}

void TestSignature::EveryChangedBitOfTheKeyIsRefused()
{
    const Signature signature = Key().Sign(message, comment);
    const QByteArray id = Key().Public().Id();
    const QByteArray bytes = Key().Public().Key();
    for (qsizetype at = 0; at < bytes.size(); ++at) {
        for (int bit = 0; bit < 8; ++bit)
            QCOMPARE(signature.Verify(message, {PublicKey(id, Flipped(bytes, at, bit))}).code,
                     int(guard::SignatureWrong));
    }
    for (qsizetype at = 0; at < id.size(); ++at)
        QCOMPARE(signature.Verify(message, {PublicKey(Flipped(id, at, 0), bytes)}).code,
                 int(guard::SignatureUnknownKey));
}

void TestSignature::PartsOfTwoSignaturesAreRefused_data()
{
    QTest::addColumn<QList<int>>("fromOther");
    // Which of the lines 2 to 4 come from the signature of another message.
    QTest::newRow("signature") << QList<int>{1};
    QTest::newRow("comment") << QList<int>{2};
    QTest::newRow("second signature") << QList<int>{3};
    QTest::newRow("comment and second signature") << QList<int>{2, 3};
    QTest::newRow("both signatures") << QList<int>{1, 3};
    QTest::newRow("signature and comment") << QList<int>{1, 2};
    QTest::newRow("all") << QList<int>{1, 2, 3};
}

void TestSignature::PartsOfTwoSignaturesAreRefused()
{
    QFETCH(QList<int>, fromOther);
    const QByteArray otherComment = "package:demo-app version:2.4.2 platform:x64";
    QList<QByteArray> lines = Lines(Key().Sign(message, comment).FileText());
    const QList<QByteArray> others = Lines(Key().Sign("another", otherComment).FileText());
    QVERIFY(!Check(lines.join('\n')));
    QVERIFY(!Check(others.join('\n'), "another"));
    for (const int line : fromOther)
        lines[line] = others.at(line);
    QCOMPARE(Check(lines.join('\n')).code, int(guard::SignatureWrong));

    // The same with the key of somebody else under the id of the trusted one.
    const SeededKey stranger(8);
    const QList<QByteArray> strange = Lines(stranger.Sign(message, comment).FileText());
    lines = Lines(Key().Sign(message, comment).FileText());
    for (const int line : fromOther) {
        QByteArray bytes = QByteArray::fromBase64(strange.at(line));
        if (line == 1)
            bytes.replace(2, 8, Key().Public().Id());
        lines[line] = line == 2 ? "trusted comment: other" : bytes.toBase64();
    }
    QCOMPARE(Check(lines.join('\n')).code, int(guard::SignatureWrong));
}

void TestSignature::SignatureOverTheMessageItselfIsRefused()
{
    const QByteArray bytes = Key().SignBytes(message);
    const Signature signature(Key().Public().Id(), bytes, comment,
                              Key().SignBytes(Signature::CommentMessage(bytes, comment)));
    QCOMPARE(signature.Verify(message, {Key().Public()}).code, int(guard::SignatureWrong));
}

void TestSignature::UnknownKeyIsNamedWithTheTrustedOnes()
{
    const Signature signature = SeededKey(9).Sign(message, comment);
    const PublicKey other = SeededKey(8).Public();
    Problem problem = signature.Verify(message, {Key().Public(), other});
    QCOMPARE(problem.code, int(guard::SignatureUnknownKey));
    QCOMPARE(problem.text,
             QStringLiteral("it is signed with the key %1, which is not trusted; trusted: %2, %3")
                 .arg(SeededKey(9).Public().IdText(), Key().Public().IdText(), other.IdText()));
    for (const QList<PublicKey>& none : {QList<PublicKey>(), QList<PublicKey>{PublicKey()}}) {
        problem = signature.Verify(message, none);
        QCOMPARE(problem.code, int(guard::SignatureUnknownKey));
        QVERIFY2(problem.text.endsWith("trusted: none"), qPrintable(problem.text));
    }
}

void TestSignature::OneOfSeveralKeysIsEnough()
{
    const Signature signature = Key().Sign(message, comment);
    QVERIFY(!signature.Verify(message, {SeededKey(8).Public(), PublicKey(), Key().Public()}));
    QVERIFY(!signature.Verify(message, {Key().Public(), SeededKey(8).Public()}));
}

void TestSignature::KeysWithOneIdAreTriedAll()
{
    const PublicKey same(Key().Public().Id(), SeededKey(8).Public().Key());
    const Signature signature = Key().Sign(message, comment);
    QVERIFY(!signature.Verify(message, {same, Key().Public()}));
    QVERIFY(!signature.Verify(message, {Key().Public(), same}));
    QCOMPARE(signature.Verify(message, {same}).code, int(guard::SignatureWrong));
}

void TestSignature::SignatureWithoutPartsIsNone()
{
    const QByteArray id = Key().Public().Id();
    const QByteArray bytes(64, 's');
    for (const Signature& signature :
         {Signature(), Signature(id.chopped(1), bytes, comment, bytes),
          Signature(id, bytes.chopped(1), comment, bytes),
          Signature(id, bytes, comment, bytes + 's'), Signature(id, bytes, "a\nb", bytes),
          Signature(id, bytes, QByteArray(8193, 'c'), bytes),
          Signature(id, bytes, "\xff", bytes)}) {
        QVERIFY(!signature.IsValid());
        QVERIFY(signature.FileText().isEmpty());
        QCOMPARE(signature.Verify(message, {Key().Public()}).code, int(guard::SignatureMalformed));
    }
}

void TestSignature::SeveralThreadsMayVerify()
{
    const QByteArray text = Key().Sign(message, comment).FileText();
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] { good += Check(text) ? 0 : 1; });
    for (std::thread& thread : threads)
        thread.join();
    QCOMPARE(good.load(), 4);
}

void TestSignature::TrustedCommentNamesTheIdentity()
{
    QCOMPARE(guard::TrustedComment(identity), QString::fromLatin1(comment));
    for (const PackageIdentity& one :
         {identity, PackageIdentity{"a", "2.0-rc1+b~c", "x86"},
          PackageIdentity{QString(128, 'p'), QString(128, 'v'), QString(128, 'f')},
          PackageIdentity{"version", "platform", "package"}}) {
        QVERIFY(one.Violation().isEmpty());
        PackageIdentity read;
        const Problem problem = guard::ReadTrustedComment(guard::TrustedComment(one), &read);
        QVERIFY2(!problem, qPrintable(problem.text));
        QCOMPARE(read.package, one.package);
        QCOMPARE(read.version, one.version);
        QCOMPARE(read.platform, one.platform);
    }
}

void TestSignature::IdentitiesThatCannotBeSignedAreRefused_data()
{
    QTest::addColumn<QString>("part");
    QTest::newRow("empty") << QString();
    QTest::newRow("blank") << "a b";
    QTest::newRow("blank at the end") << "a ";
    QTest::newRow("colon") << "a:b";
    QTest::newRow("another field") << "a version:1";
    QTest::newRow("line end") << "a\n";
    QTest::newRow("tab") << "a\tb";
    QTest::newRow("null") << QString(QChar(0));
    QTest::newRow("no-break space") << QString::fromUtf16(u"a\u00a0b");
    QTest::newRow("not ASCII") << QString::fromUtf16(u"\u0430");
    QTest::newRow("half a surrogate pair") << QString(QChar(0xd800));
    QTest::newRow("slash") << "a/b";
    QTest::newRow("129 characters") << QString(129, 'a');
}

void TestSignature::IdentitiesThatCannotBeSignedAreRefused()
{
    QFETCH(QString, part);
    const QString names[] = {"package", "version", "platform"};
    const PackageIdentity identities[] = {{part, "1", "x64"}, {"a", part, "x64"}, {"a", "1", part}};
    for (int i = 0; i < 3; ++i) {
        const QString violation = identities[i].Violation();
        QVERIFY2(violation.startsWith("the " + names[i] + " '"), qPrintable(violation));
        QCOMPARE(guard::TrustedComment(identities[i]), QString());
        PackageIdentity read;
        QCOMPARE(guard::ReadTrustedComment(
                     QStringLiteral("package:%1 version:%2 platform:%3")
                         .arg(identities[i].package, identities[i].version, identities[i].platform),
                     &read)
                     .code,
                 int(guard::SignatureMalformed));
    }
}

void TestSignature::OtherCommentsAreRefused_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("empty") << QString();
    QTest::newRow("of minisign") << "timestamp:1795195844\tfile:f\thashed";
    QTest::newRow("no platform") << "package:a version:1";
    QTest::newRow("another order") << "version:1 package:a platform:x64";
    QTest::newRow("twice") << "package:a package:a version:1 platform:x64";
    QTest::newRow("more") << "package:a version:1 platform:x64 extra:1";
    QTest::newRow("blank before") << " package:a version:1 platform:x64";
    QTest::newRow("blank after") << "package:a version:1 platform:x64 ";
    QTest::newRow("line end after") << "package:a version:1 platform:x64\n";
    QTest::newRow("two blanks") << "package:a  version:1 platform:x64";
    QTest::newRow("tab") << "package:a\tversion:1 platform:x64";
    QTest::newRow("upper case") << "Package:a version:1 platform:x64";
    QTest::newRow("line before") << "x\npackage:a version:1 platform:x64";
}

void TestSignature::OtherCommentsAreRefused()
{
    QFETCH(QString, text);
    PackageIdentity read{"p", "v", "f"};
    const Problem problem = guard::ReadTrustedComment(text, &read);
    QCOMPARE(problem.code, int(guard::SignatureMalformed));
    QVERIFY2(problem.text.contains("trusted comment"), qPrintable(problem.text));
    QCOMPARE(read.package, QStringLiteral("p"));
}

QTEST_GUILESS_MAIN(TestSignature)
#include "tst_signature.moc"
