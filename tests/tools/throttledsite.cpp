#include "throttledsite.h"

#include "manifest.h"
#include "treebuilder.h"

#include <kxupdater/build.h>

namespace {

constexpr qint64 largeFile = 500000;
constexpr qint64 bytesPerSecond = 300000; // of each connection

const QString version = QStringLiteral("2.0");

} // namespace

ThrottledSite::ThrottledSite() : server(site.Path(QStringLiteral("server")))
{
    kxtest::TreeBuilder tree(site.Tree(version));
    tree.RandomFile(QStringLiteral("lib/深い場所/とても長いファイル名.bin"), largeFile, 11)
        .RandomFile(QStringLiteral("lib/large.bin"), largeFile, 12);
    for (int i = 0; i < 20; ++i)
        tree.RandomFile(QStringLiteral("share/small%1.txt").arg(i), 5000 + i, 20 + i);
    server.SetRateLimit(bytesPerSecond);
}

QString ThrottledSite::Start()
{
    kxtest::TreeBuilder(site.Path(QStringLiteral("server"))).Dir(QStringLiteral("packages"));
    if (!server.Start())
        return server.Error();
    const updater::FileList list = kxtest::PublishTree(
        site.Path(QStringLiteral("server")), QStringLiteral("hello"), version,
        updater::Build::Platform(), site.Tree(version), server.Url(), QStringLiteral("bin/hello"));
    for (const updater::File& file : list) {
        if (!file.IsSymlink()) {
            bytes += qint64(file.Size());
            ++files;
        }
    }
    return QString();
}

QStringList ThrottledSite::Update(const QStringList& more) const
{
    QStringList arguments = site.Command(QStringLiteral("update"), QStringLiteral("0"), more);
    arguments[arguments.indexOf(QStringLiteral("--url")) + 1] = server.Url();
    return arguments;
}
