#include "guardsite.h"

#include "manifest.h"

#include <QDir>
#include <QFile>
#include <QStorageInfo>

#include <filesystem>

namespace kxtest {
namespace {

// In memory where that is possible: each swap is brought to disk, and many of them are made.
QString Template()
{
    const QStorageInfo memory(QStringLiteral("/dev/shm"));
    const bool suits = memory.isValid() && memory.fileSystemType() == "tmpfs" &&
                       memory.bytesAvailable() > (qint64(1) << 28);
    const QString place = suits ? memory.rootPath() : QDir::tempPath();
    return place + QStringLiteral("/kxguard-XXXXXX");
}

} // namespace

const QString GuardSite::package = QStringLiteral("demo");
const QStringList GuardSite::plainNames = {QStringLiteral("app"), QStringLiteral("next"),
                                           QStringLiteral("outside")};

GuardSite::GuardSite() : directory(Template())
{
    if (!directory.isValid())
        qFatal("no temporary directory");
    // Tests of rights drop them, and must still get here.
    SetMode(directory.path(), 0755);
    Reset();
}

QString GuardSite::Scratch(const QString& name) const
{
    const QString path = directory.path() + u'/' + name;
    QDir().mkpath(path);
    return path;
}

void GuardSite::Reset()
{
    Remove(Root());
    TreeBuilder(App())
        .File(QStringLiteral("bin/app"), "old program", 0755)
        .File(QStringLiteral("data/same"), "same")
        .File(QStringLiteral("data/gone"), "gone")
        .File(QStringLiteral(".hidden"), "old and hidden")
        .Symlink(QStringLiteral("link"), QStringLiteral("bin/app"));
    TreeBuilder(Next())
        .File(QStringLiteral("bin/app"), "new program", 0755)
        .File(QStringLiteral("data/same"), "same")
        .File(QStringLiteral("lib/deep/file"), "new", 0600)
        .Symlink(QStringLiteral("lib/link"), QStringLiteral("../bin/app"));
    TreeBuilder(Outside()).File(QStringLiteral("bystander"), "keep me");
    oldTree = Snapshot(App());
    newTree = Snapshot(Next());
    Describe();
}

void GuardSite::Describe()
{
    xml = ManifestFor(package, QStringLiteral("http://127.0.0.1/files"), QStringLiteral("bin/app"),
                      ScanForManifest(Next()));
    Write(XmlFile(), xml.toUtf8());
}

QStringList GuardSite::Names() const
{
    return QDir(Root()).entryList(QDir::AllEntries | QDir::Hidden | QDir::System |
                                  QDir::NoDotAndDotDot);
}

bool GuardSite::IsNew() const
{
    return Names() == plainNames && Snapshot(App()) == newTree;
}

bool GuardSite::IsOld() const
{
    return Names() == plainNames && Snapshot(App()) == oldTree;
}

QByteArray GuardSite::Report() const
{
    return Snapshot(Root()).join(u'\n').toUtf8();
}

void CopyTree(const QString& from, const QString& to)
{
    std::error_code error;
    std::filesystem::copy(
        QFile::encodeName(from).toStdString(), QFile::encodeName(to).toStdString(),
        std::filesystem::copy_options::recursive | std::filesystem::copy_options::copy_symlinks,
        error);
    if (error)
        qFatal("cannot copy '%s'", qPrintable(from));
}

} // namespace kxtest
