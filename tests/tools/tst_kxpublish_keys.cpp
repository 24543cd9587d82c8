#include "minisignkeys.h"
#include "publishsite.h"
#include "treebuilder.h"

#include <kxguard/publickey.h>

#include <QRegularExpression>
#include <QTest>

#include <csignal>
#include <fcntl.h>
#include <functional>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

using kxtest::Execute;
using kxtest::ExecutedProgram;
using kxtest::PublishResult;
using kxtest::RunPublish;
using kxtest::SecretKeyParts;
using kxtest::TreeBuilder;

using SpoilFunction = std::function<void(SecretKeyParts&)>;
Q_DECLARE_METATYPE(SpoilFunction)

namespace {

constexpr int waitMs = 300000; // a key takes seconds of computing
const QByteArray passphrase = QByteArrayLiteral("corr\xc3\xa8"
                                                "ct horse");

QString S(const char* text)
{
    return QString::fromUtf8(text);
}

/** A run of kxpublish with a terminal of its own, at which somebody sits. */
class TerminalRun
{
public:
    explicit TerminalRun(const QStringList& arguments)
    {
        master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        ::grantpt(master);
        ::unlockpt(master);
        const QByteArray name(::ptsname(master));
        // Held open here, so that the terminal's settings outlive the run.
        slave = ::open(name.constData(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        ::fcntl(master, F_SETFL, O_NONBLOCK);
        kxtest::PreparePublish(process, arguments, [name] {
            ::setsid();
            // The first terminal that such a process opens becomes its own.
            ::close(::open(name.constData(), O_RDWR));
        });
        process.start();
    }
    ~TerminalRun()
    {
        process.kill();
        process.waitForFinished();
        ::close(slave);
        ::close(master);
    }

    /** Waits until the terminal shows `text` behind what was awaited before. */
    bool Shows(const char* text)
    {
        const bool found = QTest::qWaitFor(
            [&] {
                char block[4096];
                for (ssize_t length; (length = ::read(master, block, sizeof block)) > 0;)
                    shown.append(block, length);
                return shown.indexOf(text, seen) >= 0;
            },
            waitMs);
        if (found)
            seen = shown.indexOf(text, seen) + qsizetype(qstrlen(text));
        return found;
    }
    bool ShowsWhatIsTyped() const
    {
        termios settings = {};
        return ::tcgetattr(slave, &settings) == 0 && (settings.c_lflag & ECHO);
    }
    void Type(const QByteArray& text)
    {
        QCOMPARE(::write(master, text.constData(), size_t(text.size())), ssize_t(text.size()));
    }
    PublishResult End()
    {
        process.waitForFinished(waitMs);
        Shows("");
        return kxtest::ResultOf(process, process.readAllStandardError());
    }
    const QByteArray& Shown() const { return shown; }

private:
    QProcess process;
    int master = -1;
    int slave = -1;
    QByteArray shown;
    qsizetype seen = 0;
};

} // namespace

/** Key pairs that kxpublish makes and reads, with Debian's minisign as the judge. */
class TestKxpublishKeys : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { kxtest::KeepTreesInMemory(); }
    void init();
    void MinisignSignsWithOurKey_data();
    void MinisignSignsWithOurKey();
    void WeSignWithAKeyOfMinisign_data();
    void WeSignWithAKeyOfMinisign();
    void OutputNamesTheKey();
    void WhatIsThereStays_data();
    void WhatIsThereStays();
    void SecretKeyIsForItsOwnerFromTheFirstMoment();
    void FailedWriteLeavesNoKey();
    void MissingPublicPlaceLeavesNoKey();
    void TooLittleMemoryLeavesNoKey();
    void PassphraseIsAskedForTwice();
    void DifferentPassphrasesAreRefused();
    void InterruptAtThePromptGivesTheTerminalBack();
    void PassphraseOfAKeyIsAskedFor();
    void WithoutATerminalTheOptionIsNamed();
    void BadPassphraseFileIsRefused_data();
    void BadPassphraseFileIsRefused();
    void EndOfThePassphraseLineMakesNoDifference_data();
    void EndOfThePassphraseLineMakesNoDifference();
    void DamagedKeyIsRefused_data();
    void DamagedKeyIsRefused();
    void KeyFileThatIsNoneIsRefused_data();
    void KeyFileThatIsNoneIsRefused();
    void KeyThatOthersMayReadIsWarnedOf();
    void KeyInTheTreeIsRefused();
    void CopyOfTheKeyInTheTreeIsRefused_data();
    void CopyOfTheKeyInTheTreeIsRefused();
    void OptionsThatExcludeEachOther();

private:
    QString Path(const char* name) const { return directory->Path(S(name)); }
    QStringList KeygenWords(const QStringList& more) const
    {
        return QStringList{S("keygen"), S("--secret"), Path("key"), S("--public"), Path("pub")} +
               more;
    }
    QStringList SignWords(const QStringList& more = {}) const
    {
        return QStringList{S("sign"),       directory->Path(S("tree")),
                           S("--key"),      Path("key"),
                           S("--name"),     S("n"),
                           S("--version"),  S("1"),
                           S("--platform"), S("x64")} +
               more;
    }
    void ExpectSigned();

    std::unique_ptr<TreeBuilder> directory;
};

void TestKxpublishKeys::init()
{
    directory = std::make_unique<TreeBuilder>();
    directory->File(S("tree/app"), "program", 0755).File(S("word"), passphrase + '\n', 0600);
}

void TestKxpublishKeys::ExpectSigned()
{
    const ExecutedProgram judge =
        Execute(S("minisign"), {S("-Vm"), Path("tree/SHA256SUMS"), S("-p"), Path("pub")});
    QVERIFY2(judge.status == 0, qPrintable(judge.output));
    QVERIFY(judge.output.contains(S("Trusted comment: package:n version:1 platform:x64")));
}

void TestKxpublishKeys::MinisignSignsWithOurKey_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QByteArray>("input");
    QTest::newRow("without a passphrase") << QStringList{S("--no-passphrase")} << QByteArray();
    QTest::newRow("with one") << QStringList{S("--passphrase-file"), S("word")}
                              << passphrase + '\n';
}

void TestKxpublishKeys::MinisignSignsWithOurKey()
{
    QFETCH(QStringList, options);
    QFETCH(QByteArray, input);
    options.replaceInStrings(S("word"), Path("word"));
    const PublishResult made = RunPublish(KeygenWords(options));
    QVERIFY2(made.status == 0, qPrintable(made.err.join(u'\n')));
    QCOMPARE(kxtest::Mode(Path("key")), 0600);
    QCOMPARE(kxtest::Mode(Path("pub")), 0644);

    const ExecutedProgram signing =
        Execute(S("minisign"), {S("-Sm"), Path("tree/app"), S("-s"), Path("key"), S("-t"), S("x")},
                {}, input);
    QVERIFY2(signing.status == 0, qPrintable(signing.output));
    const ExecutedProgram judge =
        Execute(S("minisign"), {S("-Vm"), Path("tree/app"), S("-p"), Path("pub")});
    QVERIFY2(judge.status == 0, qPrintable(judge.output));
}

void TestKxpublishKeys::WeSignWithAKeyOfMinisign_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QByteArray>("input");
    QTest::newRow("without a password") << QStringList{S("-W")} << QByteArray();
    QTest::newRow("with one") << QStringList() << passphrase + '\n' + passphrase + '\n';
}

void TestKxpublishKeys::WeSignWithAKeyOfMinisign()
{
    QFETCH(QStringList, options);
    QFETCH(QByteArray, input);
    const ExecutedProgram made = Execute(
        S("minisign"), QStringList{S("-G"), S("-p"), Path("pub"), S("-s"), Path("key")} + options,
        {}, input);
    QVERIFY2(made.status == 0, qPrintable(made.output));
    const PublishResult result = RunPublish(SignWords(
        input.isEmpty() ? QStringList() : QStringList{S("--passphrase-file"), Path("word")}));
    QVERIFY2(result.status == 0, qPrintable(result.err.join(u'\n')));
    ExpectSigned();
}

void TestKxpublishKeys::OutputNamesTheKey()
{
    const PublishResult result = RunPublish(KeygenWords({S("--no-passphrase")}));
    guard::PublicKey key;
    const guard::Problem problem = guard::PublicKey::Load(Path("pub"), &key);
    QVERIFY2(!problem, qPrintable(problem.text));
    QCOMPARE(result.out, QStringList({S("secret: ") + Path("key"), S("public: ") + Path("pub"),
                                      S("key-id: ") + key.IdText(),
                                      S("key: ") + QString::fromLatin1(key.Text())}));
    // Another one each time.
    QVERIFY(QFile::remove(Path("key")) && QFile::remove(Path("pub")));
    QCOMPARE(RunPublish(KeygenWords({S("--no-passphrase")})).status, 0);
    guard::PublicKey other;
    QVERIFY(!guard::PublicKey::Load(Path("pub"), &other));
    QVERIFY(other.Id() != key.Id());
    QVERIFY(other.Key() != key.Key());
}

void TestKxpublishKeys::WhatIsThereStays_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("isLink");
    QTest::newRow("a secret key") << S("key") << false;
    QTest::newRow("a public key") << S("pub") << false;
    QTest::newRow("a link that leads nowhere, as the secret key") << S("key") << true;
    QTest::newRow("a link that leads nowhere, as the public key") << S("pub") << true;
}

void TestKxpublishKeys::WhatIsThereStays()
{
    QFETCH(QString, name);
    QFETCH(bool, isLink);
    if (isLink)
        directory->Symlink(name, S("nowhere"));
    else
        directory->File(name, "precious");
    const QStringList before = kxtest::Snapshot(directory->Root());
    const PublishResult result = RunPublish(KeygenWords({S("--no-passphrase")}));
    QCOMPARE(result.status, 1);
    QVERIFY(result.err.at(0).contains(S("exists already, and is never overwritten")));
    QCOMPARE(kxtest::Snapshot(directory->Root()), before);
}

// The process ends inside of its write, and what it leaves has the mode that it was made with.
void TestKxpublishKeys::SecretKeyIsForItsOwnerFromTheFirstMoment()
{
    const PublishResult result = RunPublish(KeygenWords({S("--no-passphrase")}), [] {
        ::umask(0);
        kxtest::LimitFileSize(10);
    });
    QCOMPARE(result.status, -SIGXFSZ);
    QCOMPARE(kxtest::Read(Path("key")).size(), 10);
    QCOMPARE(kxtest::Mode(Path("key")), 0600);
}

void TestKxpublishKeys::FailedWriteLeavesNoKey()
{
    const PublishResult result =
        RunPublish(KeygenWords({S("--no-passphrase")}), [] { kxtest::LimitFileSizeGently(10); });
    QCOMPARE(result.status, 3);
    QVERIFY(result.err.at(0).startsWith(S("cannot write '%1': ").arg(Path("key"))));
    QVERIFY(!kxtest::Exists(Path("key")));
    QVERIFY(!kxtest::Exists(Path("pub")));
}

void TestKxpublishKeys::MissingPublicPlaceLeavesNoKey()
{
    directory->Dir(S("closed"), 0555);
    const PublishResult result = RunPublish({S("keygen"), S("--no-passphrase"), S("--secret"),
                                             Path("key"), S("--public"), Path("closed/pub")},
                                            kxtest::DropFileRights);
    QCOMPARE(result.status, 3);
    QVERIFY(result.err.at(0).startsWith(S("cannot write '%1': ").arg(Path("closed/pub"))));
    QVERIFY(!kxtest::Exists(Path("key")));
}

void TestKxpublishKeys::TooLittleMemoryLeavesNoKey()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    QSKIP("the sanitizers reserve more address space than any limit leaves");
#endif
    const auto limit = [] {
        const rlimit memory = {900 << 20, 900 << 20};
        ::setrlimit(RLIMIT_AS, &memory);
    };
    PublishResult result = RunPublish(KeygenWords({S("--passphrase-file"), Path("word")}), limit);
    QCOMPARE(result.err, QStringList({S("cannot encrypt the key: that takes 1 GiB of memory")}));
    QCOMPARE(result.status, 3);
    QVERIFY(!kxtest::Exists(Path("key")));
    QVERIFY(!kxtest::Exists(Path("pub")));

    SecretKeyParts key(1, passphrase);
    key.opsLimit = 33554432;
    key.memLimit = 1073741824;
    directory->File(S("key"), key.Text(), 0600);
    result = RunPublish(SignWords({S("--passphrase-file"), Path("word")}), limit);
    QVERIFY(result.err.at(0).contains(
        S("cannot be decrypted: there are not 1073741824 bytes of memory")));
    QCOMPARE(result.status, 1);
}

void TestKxpublishKeys::PassphraseIsAskedForTwice()
{
    TerminalRun run(KeygenWords({}));
    QVERIFY(run.Shows("Passphrase of the new key: "));
    QVERIFY(!run.ShowsWhatIsTyped());
    run.Type(passphrase + '\n');
    QVERIFY(run.Shows("The same passphrase again: "));
    QVERIFY(!run.ShowsWhatIsTyped());
    run.Type(passphrase + '\n');
    QCOMPARE(run.End().status, 0);
    QVERIFY(run.ShowsWhatIsTyped());
    QVERIFY2(!run.Shown().contains("horse"), run.Shown().constData());

    const PublishResult result = RunPublish(SignWords({S("--passphrase-file"), Path("word")}));
    QVERIFY2(result.status == 0, qPrintable(result.err.join(u'\n')));
    ExpectSigned();
}

void TestKxpublishKeys::DifferentPassphrasesAreRefused()
{
    TerminalRun run(KeygenWords({}));
    QVERIFY(run.Shows("Passphrase of the new key: "));
    run.Type("one\n");
    QVERIFY(run.Shows("The same passphrase again: "));
    run.Type("another\n");
    const PublishResult result = run.End();
    QCOMPARE(result.err,
             QStringList({S("--secret '%1': the two passphrases differ").arg(Path("key")),
                          S("refused, 1 problem")}));
    QCOMPARE(result.status, 1);
    QVERIFY(!kxtest::Exists(Path("key")));
}

void TestKxpublishKeys::InterruptAtThePromptGivesTheTerminalBack()
{
    TerminalRun run(KeygenWords({}));
    QVERIFY(run.Shows("Passphrase of the new key: "));
    QVERIFY(!run.ShowsWhatIsTyped());
    run.Type("\x03");
    QVERIFY(run.Shows("\n")); // what follows begins a line
    const PublishResult result = run.End();
    QCOMPARE(result.err, QStringList({S("interrupted, no key is made")}));
    QCOMPARE(result.status, 4);
    QVERIFY(run.ShowsWhatIsTyped());
    QVERIFY(!kxtest::Exists(Path("key")));
}

void TestKxpublishKeys::PassphraseOfAKeyIsAskedFor()
{
    const SecretKeyParts key(1, passphrase);
    directory->File(S("key"), key.Text(), 0600).File(S("pub"), key.PublicText());
    TerminalRun run(SignWords());
    QVERIFY(run.Shows("Passphrase of '"));
    QVERIFY(run.Shows("': "));
    QVERIFY(!run.ShowsWhatIsTyped());
    run.Type(passphrase + '\n');
    const PublishResult result = run.End();
    QVERIFY2(result.status == 0, qPrintable(result.err.join(u'\n')));
    QVERIFY(!run.Shown().contains("horse"));
    ExpectSigned();
}

void TestKxpublishKeys::WithoutATerminalTheOptionIsNamed()
{
    directory->File(S("key"), SecretKeyParts(1, passphrase).Text(), 0600);
    const PublishResult result = RunPublish(SignWords(), [] { ::setsid(); });
    QCOMPARE(result.err,
             QStringList({S("--key '%1': needs a passphrase, and there is no terminal to ask for "
                            "it; --passphrase-file names a file with it")
                              .arg(Path("key")),
                          S("refused, 1 problem")}));
    QCOMPARE(result.status, 1);
}

void TestKxpublishKeys::BadPassphraseFileIsRefused_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("reason");
    QTest::newRow("nothing") << QByteArray("") << S("the passphrase is empty");
    QTest::newRow("an empty line") << QByteArray("\n") << S("the passphrase is empty");
    QTest::newRow("two lines") << QByteArray("one\ntwo\n")
                               << S("has more than one line, and a passphrase is one");
    QTest::newRow("a zero byte") << QByteArray("a\0b\n", 4) << S("the passphrase has a zero byte");
    QTest::newRow("too long") << QByteArray(1024, 'x')
                              << S("the passphrase has more than 1023 bytes");
    QTest::newRow("far too long") << QByteArray(100000, 'x') << S("is longer than 1025 bytes");
}

void TestKxpublishKeys::BadPassphraseFileIsRefused()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, reason);
    directory->File(S("bad"), content, 0600);
    const PublishResult result = RunPublish(KeygenWords({S("--passphrase-file"), Path("bad")}));
    QCOMPARE(result.err, QStringList({S("--passphrase-file '%1': %2").arg(Path("bad"), reason),
                                      S("refused, 1 problem")}));
    QCOMPARE(result.status, 1);
    QVERIFY(!kxtest::Exists(Path("key")));
}

void TestKxpublishKeys::EndOfThePassphraseLineMakesNoDifference_data()
{
    QTest::addColumn<QByteArray>("end");
    QTest::newRow("none") << QByteArray("");
    QTest::newRow("as on Unix") << QByteArray("\n");
    QTest::newRow("as on Windows") << QByteArray("\r\n");
}

void TestKxpublishKeys::EndOfThePassphraseLineMakesNoDifference()
{
    QFETCH(QByteArray, end);
    const QByteArray longest(1023, 'x');
    const SecretKeyParts key(1, longest);
    directory->File(S("key"), key.Text(), 0600)
        .File(S("pub"), key.PublicText())
        .File(S("long"), longest + end, 0600);
    const PublishResult result = RunPublish(SignWords({S("--passphrase-file"), Path("long")}));
    QVERIFY2(result.status == 0, qPrintable(result.err.join(u'\n')));
    ExpectSigned();
}

void TestKxpublishKeys::DamagedKeyIsRefused_data()
{
    QTest::addColumn<bool>("isEncrypted");
    QTest::addColumn<SpoilFunction>("spoil");
    QTest::addColumn<QString>("reason");
    const QString damaged = S("the key is damaged");
    const QString wrong = S("the passphrase is wrong, or the key is damaged");
    const auto row = [](const char* name, bool isEncrypted, const SpoilFunction& spoil,
                        const QString& reason) {
        QTest::newRow(name) << isEncrypted << spoil << reason;
    };
    const auto flip = [](QByteArray& bytes, qsizetype at) { bytes[at] = char(bytes.at(at) ^ 1); };
    row(
        "no comment", false, [](SecretKeyParts& key) { key.comment = "comment\n"; },
        S("not a secret key, its first line is no comment"));
    row(
        "no line", false, [](SecretKeyParts& key) { key.comment.clear(); },
        S("not a secret key, its first line is no comment"));
    const QString noBytes = S("not a secret key, its second line is not 158 bytes in base64");
    row(
        "an empty line", false, [](SecretKeyParts& key) { key.comment += '\n'; }, noBytes);
    row(
        "too short", false, [](SecretKeyParts& key) { key.sealed.chop(1); }, noBytes);
    row(
        "too long", false, [](SecretKeyParts& key) { key.sealed += 'x'; }, noBytes);
    row(
        "no base64", false, [](SecretKeyParts& key) { key.comment += '!'; }, noBytes);
    row(
        "algorithm", false, [](SecretKeyParts& key) { key.algorithm = "ED"; },
        S("a key of an unknown algorithm, not Ed25519"));
    row(
        "kdf", false, [](SecretKeyParts& key) { key.kdf = "sc"; },
        S("encrypted in an unknown way, not with scrypt"));
    row(
        "algorithm of the checksum", false,
        [](SecretKeyParts& key) { key.checksumAlgorithm = "B3"; },
        S("has a checksum of an unknown algorithm, not BLAKE2b"));
    row(
        "kdf of an encrypted key taken away", true,
        [](SecretKeyParts& key) { key.kdf = QByteArray(2, '\0'); }, damaged);
    row(
        "kdf of a plain key added", false,
        [](SecretKeyParts& key) {
            key.kdf = "Sc";
            key.opsLimit = 32768;
            key.memLimit = 16777216;
        },
        wrong);
    row(
        "salt", true, [flip](SecretKeyParts& key) { flip(key.salt, 31); }, wrong);
    row(
        "opslimit, another", true, [](SecretKeyParts& key) { key.opsLimit *= 2; }, wrong);
    row(
        "memlimit, another", true,
        [](SecretKeyParts& key) {
            key.opsLimit <<= 5;
            key.memLimit *= 2;
        },
        wrong);
    const QString absurd = S("asks for %1 steps and %2 bytes of memory to be decrypted, which is "
                             "beyond what any key needs: it is damaged");
    row(
        "opslimit, none", true, [](SecretKeyParts& key) { key.opsLimit = 0; },
        absurd.arg(0).arg(16777216));
    row(
        "opslimit, absurd", true, [](SecretKeyParts& key) { key.opsLimit = ~quint64(0); },
        absurd.arg(~quint64(0)).arg(16777216));
    row(
        "opslimit, one too much", true, [](SecretKeyParts& key) { key.opsLimit = 33554433; },
        absurd.arg(33554433).arg(16777216));
    row(
        "memlimit, none", true, [](SecretKeyParts& key) { key.memLimit = 0; },
        absurd.arg(32768).arg(0));
    row(
        "memlimit, absurd", true, [](SecretKeyParts& key) { key.memLimit = quint64(1) << 62; },
        absurd.arg(32768).arg(quint64(1) << 62));
    row(
        "memlimit, one too much", true, [](SecretKeyParts& key) { key.memLimit = (1 << 30) + 1; },
        absurd.arg(32768).arg((1 << 30) + 1));
    for (bool isEncrypted : {false, true}) {
        const QByteArray kind = isEncrypted ? " of an encrypted key" : "";
        const QString reason = isEncrypted ? wrong : damaged;
        row(
            "id" + kind, isEncrypted, [flip](SecretKeyParts& key) { flip(key.sealed, 0); }, reason);
        row(
            "secret half" + kind, isEncrypted, [flip](SecretKeyParts& key) { flip(key.sealed, 8); },
            reason);
        row(
            "public half" + kind, isEncrypted,
            [flip](SecretKeyParts& key) { flip(key.sealed, 71); }, reason);
        row(
            "checksum" + kind, isEncrypted, [flip](SecretKeyParts& key) { flip(key.sealed, 103); },
            reason);
    }
    // minisign writes such keys; their two halves have to go together all the same.
    row(
        "public half of a key without a checksum", false,
        [flip](SecretKeyParts& key) {
            key.sealed.replace(72, 32, QByteArray(32, '\0'));
            flip(key.sealed, 71);
        },
        damaged);
}

void TestKxpublishKeys::DamagedKeyIsRefused()
{
    QFETCH(bool, isEncrypted);
    QFETCH(SpoilFunction, spoil);
    QFETCH(QString, reason);
    SecretKeyParts key(1, isEncrypted ? passphrase : QByteArray());
    directory->File(S("key"), key.Text(), 0600).File(S("pub"), key.PublicText());
    const QStringList words = SignWords({S("--passphrase-file"), Path("word")});
    QCOMPARE(RunPublish(words).status, 0);
    ExpectSigned();
    const QStringList before = kxtest::Snapshot(Path("tree"));

    spoil(key);
    kxtest::Write(Path("key"), key.Text());
    const PublishResult result = RunPublish(words);
    QCOMPARE(result.err,
             QStringList({S("--key '%1': %2").arg(Path("key"), reason), S("refused, 1 problem")}));
    QCOMPARE(result.status, 1);
    QCOMPARE(kxtest::Snapshot(Path("tree")), before);
}

void TestKxpublishKeys::KeyFileThatIsNoneIsRefused_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("reason");
    QTest::newRow("missing") << S("missing") << S("cannot be read: No such file or directory");
    QTest::newRow("unreadable") << S("closed") << S("cannot be read: Permission denied");
    QTest::newRow("a directory") << S("directory") << S("cannot be read: not a regular file");
    QTest::newRow("a pipe") << S("pipe") << S("cannot be read: not a regular file");
    QTest::newRow("a link") << S("link") << S("cannot be read: Too many levels of symbolic links");
    QTest::newRow("huge") << S("huge") << S("is longer than 4096 bytes");
    QTest::newRow("a public key") << S("public")
                                  << S("not a secret key, its second line is not "
                                       "158 bytes in base64");
    QTest::newRow("another line") << S("third")
                                  << S("not a secret key, its second line is not "
                                       "158 bytes in base64");
}

void TestKxpublishKeys::KeyFileThatIsNoneIsRefused()
{
    QFETCH(QString, kind);
    QFETCH(QString, reason);
    const SecretKeyParts key(1);
    if (kind == S("closed"))
        directory->File(S("key"), key.Text(), 0);
    else if (kind == S("directory"))
        directory->Dir(S("key"));
    else if (kind == S("pipe"))
        QCOMPARE(::mkfifo(Path("key").toUtf8().constData(), 0600), 0);
    else if (kind == S("link"))
        directory->File(S("real"), key.Text(), 0600).Symlink(S("key"), S("real"));
    else if (kind == S("huge"))
        directory->Sparse(S("key"), qint64(1) << 40);
    else if (kind == S("public"))
        directory->File(S("key"), key.PublicText(), 0600);
    else if (kind == S("third"))
        directory->File(S("key"), key.Text() + "more\n", 0600);
    const PublishResult result = RunPublish(SignWords(), kxtest::DropFileRights);
    QCOMPARE(result.err,
             QStringList({S("--key '%1': %2").arg(Path("key"), reason), S("refused, 1 problem")}));
    QCOMPARE(result.status, 1);
    QVERIFY(!kxtest::Exists(Path("tree/SHA256SUMS")));
}

void TestKxpublishKeys::KeyThatOthersMayReadIsWarnedOf()
{
    const SecretKeyParts key(1, passphrase);
    directory->File(S("key"), key.Text(), 0640).File(S("pub"), key.PublicText());
    kxtest::SetMode(Path("word"), 0604);
    const PublishResult result = RunPublish(SignWords({S("--passphrase-file"), Path("word")}));
    const QString warning = S("warning: %1 '%2': others than its owner may read it; chmod 600 "
                              "closes it");
    QCOMPARE(result.err.mid(0, 2),
             QStringList({warning.arg(S("--key"), Path("key")),
                          warning.arg(S("--passphrase-file"), Path("word"))}));
    QCOMPARE(result.status, 0);
    ExpectSigned();
}

void TestKxpublishKeys::KeyInTheTreeIsRefused()
{
    directory->File(S("tree/key"), SecretKeyParts(1).Text(), 0600);
    const PublishResult result = RunPublish({S("sign"), Path("tree"), S("--key"), Path("tree/key"),
                                             S("--name"), S("n"), S("--version"), S("1")});
    QCOMPARE(
        result.err.at(0),
        S("--key '%1': lies inside '%2', where others get it").arg(Path("tree/key"), Path("tree")));
    QCOMPARE(result.status, 1);
}

void TestKxpublishKeys::CopyOfTheKeyInTheTreeIsRefused_data()
{
    QTest::addColumn<bool>("isAdd");
    QTest::newRow("sign") << false;
    QTest::newRow("add") << true;
}

void TestKxpublishKeys::CopyOfTheKeyInTheTreeIsRefused()
{
    QFETCH(bool, isAdd);
    const QByteArray key = SecretKeyParts(1).Text();
    directory->File(S("key"), key, 0600).File(S("tree/data"), "data", 0755);
    // As long as the key, and another one.
    directory->File(S("tree/other"), SecretKeyParts(2).Text()).File(S("tree/lib/copy"), key);
    const QStringList add{
        S("add"),       S("--sign"), Path("key"),     S("--name"),           S("n"),
        S("--version"), S("1"),      S("--base-url"), S("http://localhost"), S("--exec"),
        S("data"),      S("--out"),  Path("srv"),     Path("tree")};
    const PublishResult result = RunPublish(isAdd ? add : SignWords());
    QCOMPARE(result.err,
             QStringList({S("'lib/copy': a copy of the secret key; others would get it"),
                          S("refused, 1 problem")}));
    QCOMPARE(result.status, 1);
    QVERIFY(!kxtest::Exists(Path("tree/SHA256SUMS")));
    QVERIFY(!kxtest::Exists(Path("srv/packages/n-v1")));
}

void TestKxpublishKeys::OptionsThatExcludeEachOther()
{
    const PublishResult both =
        RunPublish(KeygenWords({S("--no-passphrase"), S("--passphrase-file"), Path("word")}));
    QCOMPARE(both.status, 2);
    QCOMPARE(both.err.at(0), S("--no-passphrase and --passphrase-file exclude each other"));
    QVERIFY(!kxtest::Exists(Path("key")));
    const PublishResult same = RunPublish({S("keygen"), S("--no-passphrase"), S("--secret"),
                                           Path("key"), S("--public"), Path("tree/../key")});
    QCOMPARE(same.status, 1);
    QVERIFY(same.err.at(0).endsWith(S("the same file as that of the secret key")));
    QVERIFY(!kxtest::Exists(Path("key")));
}

QTEST_GUILESS_MAIN(TestKxpublishKeys)
#include "tst_kxpublish_keys.moc"
