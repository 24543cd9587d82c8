#include "updatesite.h"

#include "manifest.h"
#include "treebuilder.h"

#include <kxupdater/build.h>

#include <QProcess>

namespace {

const QString package = QStringLiteral("hello");

void AddShared(kxtest::TreeBuilder& tree)
{
    tree.RandomFile(QStringLiteral("lib/engine.bin"), 200000, 1)
        .File(QStringLiteral("share/für alle.txt"), "the same in both\n");
}

} // namespace

UpdateSite::UpdateSite()
{
    kxtest::TreeBuilder first(Tree(QStringLiteral("1.0")));
    AddShared(first);
    first.File(QStringLiteral("bin/hello"), "#!/bin/sh\necho 1.0\n", 0755)
        .RandomFile(QStringLiteral("lib/filter.bin"), 100000, 2)
        .File(QStringLiteral("share/legacy.txt"), "gone in 2.0\n")
        .Symlink(QStringLiteral("lib/current"), QStringLiteral("engine.bin"));

    kxtest::TreeBuilder second(Tree(QStringLiteral("2.0")));
    AddShared(second);
    second.File(QStringLiteral("bin/hello"), "#!/bin/sh\necho 2.0\n", 0755)
        .RandomFile(QStringLiteral("lib/filter.bin"), 120000, 3)
        .File(QStringLiteral("share/new.txt"), "new in 2.0\n")
        .Symlink(QStringLiteral("lib/current"), QStringLiteral("filter.bin"));

    server.ServeDirectory(QStringLiteral("/"), Path(QStringLiteral("server")));
}

QString UpdateSite::Url() const
{
    QString url = server.Url().toString();
    while (url.endsWith(u'/'))
        url.chop(1);
    return url;
}

updater::FileList UpdateSite::Publish(const QString& version)
{
    return kxtest::PublishTree(Path(QStringLiteral("server")), package, version,
                               updater::Build::Platform(), Tree(version), Url(),
                               QStringLiteral("bin/hello"));
}

QString UpdateSite::FilePath(const QString& version, const QString& name) const
{
    return QStringLiteral("/files/%1/%2/%3/%4")
        .arg(package, version, updater::Build::Platform(), name);
}

QString UpdateSite::ManifestPath(const QString& version) const
{
    return u'/' + kxtest::ManifestPath(package, version, updater::Build::Platform());
}

void UpdateSite::CopyTree(const QString& from, const QString& to)
{
    if (QProcess::execute(QStringLiteral("cp"), {QStringLiteral("-a"), from, to}) != 0)
        qFatal("cannot copy '%s' to '%s'", qPrintable(from), qPrintable(to));
}

QStringList UpdateSite::Command(const QString& command, const QString& current,
                                const QStringList& more) const
{
    return QStringList{command, QStringLiteral("--url"),      Url(),   QStringLiteral("--package"),
                       package, QStringLiteral("--current"),  current, QStringLiteral("--app"),
                       App(),   QStringLiteral("--download"), Next()} +
           more;
}

void UpdateSite::WriteConfig(const QString& current, const QByteArray& more) const
{
    const QByteArray text = "# of the test\nurl = " + Url().toUtf8() +
                            "\npackage=" + package.toUtf8() + "\n  version =\t" + current.toUtf8() +
                            "  \n\napp = app\ndownload = next\n" + more;
    kxtest::Write(Config(), text);
}

QStringList UpdateSite::Configured(const QString& command, const QStringList& more) const
{
    return QStringList{command, QStringLiteral("--config"), Config()} + more;
}

QStringList UpdateSite::Verify(const QString& option, const QString& path) const
{
    return {QStringLiteral("verify"), option, path, QStringLiteral("--xml"), Xml()};
}

QStringList UpdateSite::Installed() const
{
    return kxtest::Snapshot(App());
}

QStringList UpdateSite::Published(const QString& version) const
{
    return kxtest::Snapshot(Tree(version));
}
