#include "droppedrights.h"
#include "filerun.h"
#include "stephook.h"
#include "treebuilder.h"
#include "wiringguard.h"

#include <kxcommon/errors.h>
#include <kxcommon/filecopier.h>

#include <QFileInfo>
#include <QTest>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using common::FileCopier;
using kxtest::FileRun;
using kxtest::TreeBuilder;

namespace {

FileRun Run(FileCopier& copier)
{
    return kxtest::RunToEnd(copier, &FileCopier::Copy);
}

FileRun CopyFile(const QString& source, const QString& destination)
{
    FileCopier copier;
    copier.AddFile(source, destination);
    return Run(copier);
}

FileRun CopyLink(const QString& source, const QString& destination)
{
    FileCopier copier;
    copier.AddSymlink(source, destination);
    return Run(copier);
}

std::filesystem::file_time_type Time(const QString& path)
{
    return std::filesystem::last_write_time(path.toStdString());
}

void SetOldTime(const QString& path)
{
    // Odd nanoseconds show a time that was cut.
    std::filesystem::last_write_time(path.toStdString(), Time(path) - std::chrono::hours(1000) +
                                                             std::chrono::nanoseconds(123456789));
}

// Counts how often the file was opened.
class OpenWatch
{
public:
    explicit OpenWatch(const QString& path) : handle(inotify_init1(IN_NONBLOCK))
    {
        inotify_add_watch(handle, qPrintable(path), IN_OPEN);
    }
    ~OpenWatch() { close(handle); }
    bool WasOpened() const
    {
        char buffer[4096];
        return read(handle, buffer, sizeof(buffer)) > 0;
    }

private:
    int handle;
};

} // namespace

class TestFileCopier : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init() { kxtest::FailOnWiringWarnings(); }

    void EmptyQueueSucceeds();
    void FileIsCopiedWithModeAndTime_data();
    void FileIsCopiedWithModeAndTime();
    void MissingParentsAreMade();
    void SizesAndContentsAreKept_data();
    void SizesAndContentsAreKept();
    void HolesStayHoles();
    void SourceLinkIsFollowed();
    void ExistingFileIsReplaced();
    void DestinationLinkIsReplacedAndNotWrittenThrough();
    void LeftoverLinkIsNotWrittenThrough();
    void OtherNameOfTheDestinationKeepsItsContent();
    void CopyOntoItselfKeepsTheFile();
    void FailureLeavesTheOldFile();
    void DirectoryAtDestinationIsAFailure();
    void SpecialFileAtDestinationIsAFailure();
    void BadSourceIsAFailure_data();
    void BadSourceIsAFailure();
    void SpecialSourceIsNotOpened_data();
    void SpecialSourceIsNotOpened();
    void BadDestinationIsAFailure_data();
    void BadDestinationIsAFailure();
    void LinkIsCopiedWithItsText_data();
    void LinkIsCopiedWithItsText();
    void LinkReplacesWhatStandsThere();
    void LinkFromAFileIsAFailure();
    void FirstFailureStopsTheRun();
    void JobsSeeWhatEarlierJobsMade();
    void NamesAreKept_data();
    void NamesAreKept();
    void PathLongerThanOneCallTakes();
    void ConfinementRefuses_data();
    void ConfinementRefuses();
    void ConfinementAllows_data();
    void ConfinementAllows();
    void ConfinementSeesLinksOfTheSameRun();
    void FullDiskHasItsOwnCode();
    void FileSizeLimitIsAWriteFailure();
    void SystemFailureNamesItsReason_data();
    void SystemFailureNamesItsReason();
    void OrdinaryUserIsRefusedWithAReason();
    void ManySmallFiles();
};

void TestFileCopier::EmptyQueueSucceeds()
{
    FileCopier copier;
    const FileRun run = Run(copier);
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QVERIFY(kxtest::IsSound(run.progress));
    QVERIFY(!run.isFromInside);
    QVERIFY(!run.isElsewhere);
}

void TestFileCopier::FileIsCopiedWithModeAndTime_data()
{
    QTest::addColumn<int>("mode");
    for (const int mode : {0644, 0600, 0755, 0777, 0444, 0400, 0555, 0640, 0711})
        QTest::addRow("mode %o", static_cast<unsigned>(mode)) << mode;
}

void TestFileCopier::FileIsCopiedWithModeAndTime()
{
    QFETCH(const int, mode);
    for (const bool isRoot : {true, false}) {
        std::unique_ptr<kxtest::DroppedRights> dropped;
        if (!isRoot)
            dropped = std::make_unique<kxtest::DroppedRights>();
        TreeBuilder tree;
        tree.File("a", "text", mode);
        SetOldTime(tree.Path("a"));
        const mode_t mask = umask(077);
        const FileRun run = CopyFile(tree.Path("a"), tree.Path("b"));
        umask(mask);
        QVERIFY2(run.IsGood(), qPrintable(run.Line()));
        QCOMPARE(kxtest::Mode(tree.Path("b")), mode);
        QCOMPARE(kxtest::Read(tree.Path("b")), QByteArray("text"));
        QVERIFY(Time(tree.Path("b")) == Time(tree.Path("a")));
    }
}

void TestFileCopier::MissingParentsAreMade()
{
    TreeBuilder tree;
    tree.File("a", "text");
    const FileRun run = CopyFile(tree.Path("a"), tree.Path("x/y//z/./b"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QCOMPARE(kxtest::Read(tree.Path("x/y/z/b")), QByteArray("text"));
}

void TestFileCopier::SizesAndContentsAreKept_data()
{
    QTest::addColumn<qint64>("size");
    for (const qint64 size : {0, 1, 4095, 4096, 4097, 131071, 131072, 262145, 9 * 1024 * 1024 + 7})
        QTest::addRow("%lld bytes", static_cast<long long>(size)) << size;
}

void TestFileCopier::SizesAndContentsAreKept()
{
    QFETCH(const qint64, size);
    TreeBuilder tree;
    tree.RandomFile("a", size, 7);
    const FileRun run = CopyFile(tree.Path("a"), tree.Path("b"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QCOMPARE(kxtest::MD5OfFile(tree.Path("b")), kxtest::MD5OfFile(tree.Path("a")));
    QVERIFY(kxtest::IsSound(run.progress));
}

void TestFileCopier::HolesStayHoles()
{
    TreeBuilder tree;
    constexpr qint64 size = 3000000000;
    tree.Sparse("a", size);
    QFile file(tree.Path("a"));
    QVERIFY(file.open(QIODevice::ReadWrite));
    QVERIFY(file.seek(1000000));
    QCOMPARE(file.write("island"), 6);
    file.close();
    const FileRun run = CopyFile(tree.Path("a"), tree.Path("b"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    struct stat status = {};
    QCOMPARE(stat(qPrintable(tree.Path("b")), &status), 0);
    QCOMPARE(static_cast<qint64>(status.st_size), size);
    QVERIFY(status.st_blocks * 512 < 10000000);
    QFile copy(tree.Path("b"));
    QVERIFY(copy.open(QIODevice::ReadOnly));
    QVERIFY(copy.seek(999999));
    QCOMPARE(copy.read(8), QByteArray("\0island\0", 8));
    QVERIFY(kxtest::IsSound(run.progress));
}

void TestFileCopier::SourceLinkIsFollowed()
{
    TreeBuilder tree;
    tree.File("a", "text", 0640).Symlink("link", "a");
    const FileRun run = CopyFile(tree.Path("link"), tree.Path("b"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QVERIFY(!QFileInfo(tree.Path("b")).isSymLink());
    QCOMPARE(kxtest::Read(tree.Path("b")), QByteArray("text"));
    QCOMPARE(kxtest::Mode(tree.Path("b")), 0640);
}

void TestFileCopier::ExistingFileIsReplaced()
{
    TreeBuilder tree;
    tree.File("a", "new", 0755).File("b", "something longer", 0400);
    const FileRun run = CopyFile(tree.Path("a"), tree.Path("b"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QCOMPARE(kxtest::Read(tree.Path("b")), QByteArray("new"));
    QCOMPARE(kxtest::Mode(tree.Path("b")), 0755);
    QCOMPARE(kxtest::Snapshot(tree.Root()).size(), 2);
}

void TestFileCopier::DestinationLinkIsReplacedAndNotWrittenThrough()
{
    TreeBuilder tree;
    tree.File("a", "new").File("outside", "old").Symlink("b", "outside").Symlink("c", "nowhere");
    for (const char* name : {"b", "c"}) {
        const FileRun run = CopyFile(tree.Path("a"), tree.Path(name));
        QVERIFY2(run.IsGood(), qPrintable(run.Line()));
        QVERIFY(!QFileInfo(tree.Path(name)).isSymLink());
        QCOMPARE(kxtest::Read(tree.Path(name)), QByteArray("new"));
    }
    QCOMPARE(kxtest::Read(tree.Path("outside")), QByteArray("old"));
    QVERIFY(!kxtest::Exists(tree.Path("nowhere")));
}

void TestFileCopier::LeftoverLinkIsNotWrittenThrough()
{
    TreeBuilder tree;
    tree.File("a", "new").File("outside", "old").Symlink(".b.kx.part", "outside");
    const FileRun run = CopyFile(tree.Path("a"), tree.Path("b"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QCOMPARE(kxtest::Read(tree.Path("outside")), QByteArray("old"));
    QCOMPARE(kxtest::Read(tree.Path("b")), QByteArray("new"));
    QVERIFY(!kxtest::Exists(tree.Path(".b.kx.part")));
}

void TestFileCopier::OtherNameOfTheDestinationKeepsItsContent()
{
    TreeBuilder tree;
    tree.File("a", "new").File("b", "old");
    std::filesystem::create_hard_link(tree.Path("b").toStdString(), tree.Path("c").toStdString());
    const FileRun run = CopyFile(tree.Path("a"), tree.Path("b"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QCOMPARE(kxtest::Read(tree.Path("b")), QByteArray("new"));
    QCOMPARE(kxtest::Read(tree.Path("c")), QByteArray("old"));
}

void TestFileCopier::CopyOntoItselfKeepsTheFile()
{
    TreeBuilder tree;
    tree.File("a", "text", 0750);
    const FileRun run = CopyFile(tree.Path("a"), tree.Path("a"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QCOMPARE(kxtest::Read(tree.Path("a")), QByteArray("text"));
    QCOMPARE(kxtest::Mode(tree.Path("a")), 0750);
}

void TestFileCopier::FailureLeavesTheOldFile()
{
    using common::fileops::Step;
    TreeBuilder tree;
    tree.RandomFile("a", 1000000, 3).File("b", "old");
    for (const Step step : {Step::Entry, Step::Block, Step::Attributes}) {
        const kxtest::StepHook hook(kxtest::StepHook::Failing(step, 1, EIO));
        const FileRun run = CopyFile(tree.Path("a"), tree.Path("b"));
        QCOMPARE(run.failures, 1);
        QCOMPARE(kxtest::Read(tree.Path("b")), QByteArray("old"));
        QCOMPARE(kxtest::Snapshot(tree.Root()).size(), 2);
    }
}

void TestFileCopier::DirectoryAtDestinationIsAFailure()
{
    TreeBuilder tree;
    tree.File("a", "text").Symlink("l", "a").Dir("d");
    FileRun run = CopyFile(tree.Path("a"), tree.Path("d"));
    QVERIFY2(run.HasFailed(common::CopyReplace), qPrintable(run.Line()));
    run = CopyLink(tree.Path("l"), tree.Path("d"));
    QVERIFY2(run.HasFailed(common::CopyReplace), qPrintable(run.Line()));
    QVERIFY(QFileInfo(tree.Path("d")).isDir());
}

void TestFileCopier::SpecialFileAtDestinationIsAFailure()
{
    TreeBuilder tree;
    tree.File("a", "text");
    QCOMPARE(mkfifo(qPrintable(tree.Path("b")), 0600), 0);
    const FileRun run = CopyFile(tree.Path("a"), tree.Path("b"));
    QVERIFY2(run.HasFailed(common::CopyReplace), qPrintable(run.Line()));
}

void TestFileCopier::BadSourceIsAFailure_data()
{
    QTest::addColumn<QString>("source");
    QTest::addColumn<int>("code");
    QTest::newRow("missing") << "none" << int(common::CopySourceMissing);
    QTest::newRow("missing parent") << "none/none" << int(common::CopySourceMissing);
    QTest::newRow("below a file") << "file/none" << int(common::CopySourceMissing);
    QTest::newRow("dangling link") << "dangling" << int(common::CopySourceMissing);
    QTest::newRow("directory") << "dir" << int(common::CopyRead);
    QTest::newRow("link to a directory") << "dirlink" << int(common::CopyRead);
    QTest::newRow("link to itself") << "loop" << int(common::CopyRead);
    QTest::newRow("null character") << QStringLiteral("file") + QChar(0) + QStringLiteral("x")
                                    << int(common::CopySourceMissing);
}

void TestFileCopier::BadSourceIsAFailure()
{
    QFETCH(const QString, source);
    QFETCH(const int, code);
    TreeBuilder tree;
    tree.File("file", "text").Dir("dir").Symlink("dangling", "nowhere").Symlink("dirlink", "dir");
    tree.Symlink("loop", "loop");
    const FileRun run = CopyFile(tree.Path(source), tree.Path("out"));
    QVERIFY2(run.HasFailed(code), qPrintable(run.Line()));
    QVERIFY(!run.isFromInside);
    QVERIFY(run.text.contains(tree.Path(source)));
    QVERIFY(run.text.contains(tree.Path("out")));
    QVERIFY(!kxtest::Exists(tree.Path("out")));
    FileRun empty = CopyFile({}, tree.Path("out"));
    QVERIFY2(empty.HasFailed(common::CopySourceMissing), qPrintable(empty.Line()));
}

void TestFileCopier::SpecialSourceIsNotOpened_data()
{
    QTest::addColumn<QString>("kind");
    QTest::newRow("fifo") << "fifo";
    QTest::newRow("socket") << "socket";
    QTest::newRow("device") << "device";
}

void TestFileCopier::SpecialSourceIsNotOpened()
{
    QFETCH(const QString, kind);
    TreeBuilder tree;
    QString source = tree.Path("s");
    const int socketHandle = socket(AF_UNIX, SOCK_STREAM, 0);
    if (kind == "fifo") {
        QCOMPARE(mkfifo(qPrintable(source), 0600), 0);
    } else if (kind == "socket") {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        qstrncpy(address.sun_path, qPrintable(source), sizeof(address.sun_path));
        QCOMPARE(bind(socketHandle, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    } else {
        source = "/dev/null";
    }
    const OpenWatch watch(source);
    const FileRun run = CopyFile(source, tree.Path("out"));
    close(socketHandle);
    QVERIFY2(run.HasFailed(common::CopySpecialFile), qPrintable(run.Line()));
    QVERIFY(kind == "device" || !watch.WasOpened());
}

void TestFileCopier::BadDestinationIsAFailure_data()
{
    QTest::addColumn<QString>("destination");
    QTest::addColumn<int>("code");
    QTest::newRow("below a file") << "file/x/y" << int(common::CopyCreateDirectory);
    QTest::newRow("below a dangling link") << "dangling/y" << int(common::CopyCreateDirectory);
    QTest::newRow("ends in ..") << "dir/.." << int(common::CopyWrite);
    QTest::newRow("name too long") << QString(256, 'x') << int(common::CopyWrite);
    QTest::newRow("directory name too long")
        << QString(256, 'x') + "/y" << int(common::CopyCreateDirectory);
    QTest::newRow("null character")
        << QStringLiteral("o") + QChar(0) + QStringLiteral("x") << int(common::CopyWrite);
}

void TestFileCopier::BadDestinationIsAFailure()
{
    QFETCH(const QString, destination);
    QFETCH(const int, code);
    TreeBuilder tree;
    tree.File("file", "text").Dir("dir").Symlink("dangling", "nowhere");
    const QStringList before = kxtest::Snapshot(tree.Root());
    const FileRun run = CopyFile(tree.Path("file"), tree.Path(destination));
    QVERIFY2(run.HasFailed(code), qPrintable(run.Line()));
    QVERIFY(run.text.contains(tree.Path("file")));
    QCOMPARE(kxtest::Snapshot(tree.Root()), before);
    const FileRun empty = CopyFile(tree.Path("file"), {});
    QVERIFY2(empty.HasFailed(common::CopyWrite), qPrintable(empty.Line()));
}

void TestFileCopier::LinkIsCopiedWithItsText_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("relative") << "target";
    QTest::newRow("dangling") << "no/where/at/all";
    QTest::newRow("absolute") << "/usr/lib";
    QTest::newRow("up and uncleaned") << "..//./x/../target/";
    QTest::newRow("not ascii") << QStringLiteral("Grüße 日本 e\u0301");
    QTest::newRow("long") << QString(4000, 'x');
    QTest::newRow("256 bytes") << QString(256, 'y');
}

void TestFileCopier::LinkIsCopiedWithItsText()
{
    QFETCH(const QString, text);
    TreeBuilder tree;
    tree.File("target", "x").Symlink("l", text);
    const FileRun run = CopyLink(tree.Path("l"), tree.Path("new/dir/m"));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QCOMPARE(kxtest::LinkText(tree.Path("new/dir/m")), text);
    QVERIFY(kxtest::IsSound(run.progress));
}

void TestFileCopier::LinkReplacesWhatStandsThere()
{
    TreeBuilder tree;
    tree.File("target", "x").Symlink("l", "target").File("file", "old");
    tree.Dir("dir").Symlink("dirlink", "dir").Symlink("dangling", "nowhere");
    for (const char* name : {"file", "dirlink", "dangling"}) {
        const FileRun run = CopyLink(tree.Path("l"), tree.Path(name));
        QVERIFY2(run.IsGood(), qPrintable(run.Line()));
        QCOMPARE(kxtest::LinkText(tree.Path(name)), QStringLiteral("target"));
    }
    QVERIFY(kxtest::Snapshot(tree.Path("dir")).isEmpty());
    QVERIFY(!kxtest::Exists(tree.Path("nowhere")));
    QCOMPARE(kxtest::Read(tree.Path("target")), QByteArray("x"));
}

void TestFileCopier::LinkFromAFileIsAFailure()
{
    TreeBuilder tree;
    tree.File("file", "x").Dir("dir");
    for (const char* name : {"file", "dir"}) {
        const FileRun run = CopyLink(tree.Path(name), tree.Path("out"));
        QVERIFY2(run.HasFailed(common::CopyLink), qPrintable(run.Line()));
    }
    const FileRun run = CopyLink(tree.Path("none"), tree.Path("out"));
    QVERIFY2(run.HasFailed(common::CopySourceMissing), qPrintable(run.Line()));
}

void TestFileCopier::FirstFailureStopsTheRun()
{
    TreeBuilder tree;
    tree.File("a", "x");
    FileCopier copier;
    copier.AddFile(tree.Path("a"), tree.Path("b"));
    copier.AddFile(tree.Path("none"), tree.Path("c"));
    copier.AddFile(tree.Path("a"), tree.Path("d"));
    const FileRun run = Run(copier);
    QVERIFY2(run.HasFailed(common::CopySourceMissing), qPrintable(run.Line()));
    QVERIFY(kxtest::Exists(tree.Path("b")));
    QVERIFY(!kxtest::Exists(tree.Path("d")));
}

void TestFileCopier::JobsSeeWhatEarlierJobsMade()
{
    TreeBuilder tree;
    tree.RandomFile("a", 100000, 1);
    FileCopier copier;
    copier.AddFile(tree.Path("a"), tree.Path("d/b"));
    copier.AddDirectory(tree.Path("d"), tree.Path("e"));
    copier.AddFile(tree.Path("e/b"), tree.Path("c"));
    const FileRun run = Run(copier);
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QVERIFY(kxtest::IsSound(run.progress));
    QCOMPARE(kxtest::MD5OfFile(tree.Path("c")), kxtest::MD5OfFile(tree.Path("a")));
}

void TestFileCopier::NamesAreKept_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("composed") << QStringLiteral("\u00e9t\u00e9");
    QTest::newRow("decomposed") << QStringLiteral("e\u0301te\u0301");
    QTest::newRow("spaces") << QStringLiteral(" a  b ");
    QTest::newRow("hidden") << QStringLiteral(".hidden");
    QTest::newRow("percent and hash") << QStringLiteral("a%20b#c?d");
    QTest::newRow("newline") << QStringLiteral("a\nb");
    QTest::newRow("backslash") << QStringLiteral("a\\b");
    QTest::newRow("outside the basic plane") << QStringLiteral("\U0001f600");
    QTest::newRow("255 bytes") << QString(255, 'n');
    QTest::newRow("255 bytes of umlauts") << QString(127, QChar(0xe4)) + "x";
}

void TestFileCopier::NamesAreKept()
{
    QFETCH(const QString, name);
    TreeBuilder tree;
    tree.File("in/" + name, "text");
    const FileRun run = CopyFile(tree.Path("in/" + name), tree.Path("out/" + name));
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QCOMPARE(kxtest::Snapshot(tree.Path("out")), kxtest::Snapshot(tree.Path("in")));
}

void TestFileCopier::PathLongerThanOneCallTakes()
{
    TreeBuilder tree;
    tree.File("a", "text");
    QString path = tree.Path("deep");
    while (path.size() < 5000)
        path += '/' + QString(200, 'd');
    FileCopier copier;
    copier.AddFile(tree.Path("a"), path + "/b");
    copier.AddFile(path + "/b", tree.Path("c"));
    const FileRun run = Run(copier);
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QCOMPARE(kxtest::Read(tree.Path("c")), QByteArray("text"));
    // The temporary directory's own clearing is not up to such paths.
    std::filesystem::remove_all(tree.Path("deep").toStdString());
}

void TestFileCopier::ConfinementRefuses_data()
{
    QTest::addColumn<QString>("destination");
    QTest::newRow("beside the root") << "outside/x";
    QTest::newRow("the root itself") << "root";
    QTest::newRow("name that begins like the root") << "rootx";
    QTest::newRow("up and out") << "root/../outside/x";
    QTest::newRow("up and back") << "root/a/../x";
    QTest::newRow("absolute name") << "root//x";
    QTest::newRow("dot") << "root/./x";
    QTest::newRow("separator at the end") << "root/x/";
    QTest::newRow("backslash") << "root/a\\b";
    QTest::newRow("control character") << "root/a\nb";
    QTest::newRow("through a link") << "root/link/x";
    QTest::newRow("through a link deeper") << "root/a/link/x";
    QTest::newRow("through a file") << "root/file/x";
}

void TestFileCopier::ConfinementRefuses()
{
    QFETCH(const QString, destination);
    TreeBuilder tree;
    tree.File("src", "x").Symlink("srclink", "src").Dir("outside");
    tree.Symlink("root/link", "../outside").Symlink("root/a/link", "../../outside");
    tree.File("root/file", "x");
    const QStringList before = kxtest::Snapshot(tree.Root());
    for (const bool isLink : {false, true}) {
        FileCopier copier;
        copier.SetDestinationRoot(tree.Path("root"));
        if (isLink)
            copier.AddSymlink(tree.Path("srclink"), tree.Path(destination));
        else
            copier.AddFile(tree.Path("src"), tree.Path(destination));
        const FileRun run = Run(copier);
        QVERIFY2(run.HasFailed(common::CopyConfinement), qPrintable(run.Line()));
        QVERIFY(run.text.contains(tree.Path(destination)));
        QCOMPARE(kxtest::Snapshot(tree.Root()), before);
    }
}

void TestFileCopier::ConfinementAllows_data()
{
    QTest::addColumn<QString>("root");
    QTest::addColumn<QString>("destination");
    QTest::newRow("plain") << "root"
                           << "root/x";
    QTest::newRow("deep and missing") << "root"
                                      << "root/a/b/c/..x";
    QTest::newRow("root with a separator") << "root/"
                                           << "root/x";
    QTest::newRow("root with a separator, added one") << "root/"
                                                      << "root//x";
    QTest::newRow("root that does not exist") << "new"
                                              << "new/a/x";
    QTest::newRow("root reached through a link") << "rootlink"
                                                 << "rootlink/x";
    QTest::newRow("replaces a link itself") << "root"
                                            << "root/link";
}

void TestFileCopier::ConfinementAllows()
{
    QFETCH(const QString, root);
    QFETCH(const QString, destination);
    TreeBuilder tree;
    tree.File("src", "x").Dir("root").Symlink("rootlink", "root").Symlink("root/link", "../src2");
    FileCopier copier;
    copier.SetDestinationRoot(tree.Path(root));
    copier.AddFile(tree.Path("src"), tree.Path(destination));
    const FileRun run = Run(copier);
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QCOMPARE(kxtest::Read(tree.Path(destination)), QByteArray("x"));
    QVERIFY(!kxtest::Exists(tree.Path("src2")));
}

void TestFileCopier::ConfinementSeesLinksOfTheSameRun()
{
    TreeBuilder tree;
    tree.File("local/file", "x").Symlink("local/link", "../outside").Dir("outside").Dir("root");
    FileCopier copier;
    copier.SetDestinationRoot(tree.Path("root"));
    copier.AddSymlink(tree.Path("local/link"), tree.Path("root/dir"));
    copier.AddFile(tree.Path("local/file"), tree.Path("root/dir/file"));
    const FileRun run = Run(copier);
    QVERIFY2(run.HasFailed(common::CopyConfinement), qPrintable(run.Line()));
    QVERIFY(kxtest::Snapshot(tree.Path("outside")).isEmpty());
    QCOMPARE(kxtest::LinkText(tree.Path("root/dir")), QStringLiteral("../outside"));
}

void TestFileCopier::FullDiskHasItsOwnCode()
{
    TreeBuilder tree;
    tree.RandomFile("a", 3000000, 1).Dir("disk", 0777);
    const QString output = kxtest::RunChild({"--small-disk", tree.Path("disk"), "1048576",
                                             "copyfile", tree.Path("a"), tree.Path("disk/x/b")})
                               .output;
    // Where no namespace may be made, the injected failure below has to do.
    if (output != "no namespace\n") {
        QVERIFY2(output.startsWith(QStringLiteral("failed %1 ").arg(common::CopyNoSpace)),
                 qPrintable(output));
        QVERIFY2(output.contains("No space left on device"), qPrintable(output));
        QVERIFY2(output.endsWith("bytes free)\nx dir 755\n"), qPrintable(output));
    }
    for (const int number : {ENOSPC, EDQUOT}) {
        const kxtest::StepHook hook(
            kxtest::StepHook::Failing(common::fileops::Step::Block, 1, number));
        const FileRun run = CopyFile(tree.Path("a"), tree.Path("b"));
        QVERIFY2(run.HasFailed(common::CopyNoSpace), qPrintable(run.Line()));
        QVERIFY(!kxtest::Exists(tree.Path("b")));
        QVERIFY(!kxtest::Exists(tree.Path(".b.kx.part")));
    }
}

void TestFileCopier::FileSizeLimitIsAWriteFailure()
{
    TreeBuilder tree;
    tree.RandomFile("a", 3000000, 1);
    const QString output =
        kxtest::RunChild({"--file-limit", "1000000", "copyfile", tree.Path("a"), tree.Path("b")})
            .output;
    QVERIFY2(output.startsWith(QStringLiteral("failed %1 ").arg(common::CopyWrite)),
             qPrintable(output));
    QCOMPARE(kxtest::Snapshot(tree.Root()).size(), 1);
}

void TestFileCopier::SystemFailureNamesItsReason_data()
{
    using common::fileops::Step;
    QTest::addColumn<int>("step");
    QTest::addColumn<int>("code");
    QTest::newRow("entry") << int(Step::Entry) << int(common::CopyWrite);
    QTest::newRow("block") << int(Step::Block) << int(common::CopyWrite);
    QTest::newRow("attributes") << int(Step::Attributes) << int(common::CopyAttributes);
}

void TestFileCopier::SystemFailureNamesItsReason()
{
    QFETCH(const int, step);
    QFETCH(const int, code);
    TreeBuilder tree;
    tree.File("a", "text");
    const kxtest::StepHook hook(
        kxtest::StepHook::Failing(static_cast<common::fileops::Step>(step), 1, EROFS));
    const FileRun run = CopyFile(tree.Path("a"), tree.Path("b"));
    QVERIFY2(run.HasFailed(code), qPrintable(run.Line()));
    QVERIFY2(run.text.contains("Read-only file system"), qPrintable(run.text));
    QVERIFY(run.text.startsWith(
        QStringLiteral("Cannot copy '%1' to '%2': ").arg(tree.Path("a"), tree.Path("b"))));
}

void TestFileCopier::OrdinaryUserIsRefusedWithAReason()
{
    const kxtest::DroppedRights dropped;
    TreeBuilder tree;
    tree.File("secret", "x", 0000).File("a", "x").Dir("closed", 0555);
    FileRun run = CopyFile(tree.Path("secret"), tree.Path("b"));
    QVERIFY2(run.HasFailed(common::CopyRead), qPrintable(run.Line()));
    QVERIFY(run.text.contains("Permission denied"));
    tree.Dir("dark", 0000);
    run = CopyFile(tree.Path("dark/x"), tree.Path("b"));
    QVERIFY2(run.HasFailed(common::CopyRead), qPrintable(run.Line()));
    run = CopyFile(tree.Path("a"), tree.Path("closed/b"));
    QVERIFY2(run.HasFailed(common::CopyWrite), qPrintable(run.Line()));
    run = CopyFile(tree.Path("a"), tree.Path("closed/new/b"));
    QVERIFY2(run.HasFailed(common::CopyCreateDirectory), qPrintable(run.Line()));
}

void TestFileCopier::ManySmallFiles()
{
    TreeBuilder tree;
    FileCopier copier;
    constexpr int count = 5000;
    for (int i = 0; i < count; ++i) {
        const QString name = QStringLiteral("%1/f%2").arg(i / 100).arg(i);
        tree.File("in/" + name, QByteArray::number(i));
        copier.AddFile(tree.Path("in/" + name), tree.Path("out/" + name));
    }
    const FileRun run = Run(copier);
    QVERIFY2(run.IsGood(), qPrintable(run.Line()));
    QVERIFY(kxtest::IsSound(run.progress));
    QCOMPARE(kxtest::Snapshot(tree.Path("out")), kxtest::Snapshot(tree.Path("in")));
}

QTEST_GUILESS_MAIN(TestFileCopier)
#include "tst_filecopier.moc"
