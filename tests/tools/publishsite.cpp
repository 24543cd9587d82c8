#include "publishsite.h"

#include <QFileInfo>
#include <QRegularExpression>

namespace kxtest {
namespace {

void Expect(const PublishResult& result, const char* what)
{
    if (result.status != 0)
        qFatal("%s failed: %s", what, qPrintable(result.err.join(QLatin1Char('\n'))));
}

} // namespace

void KeepTreesInMemory()
{
    const QFileInfo memory(QStringLiteral("/dev/shm"));
    if (memory.isDir() && memory.isWritable())
        qputenv("TMPDIR", "/dev/shm");
}

PublishSite::PublishSite()
{
    tree.File(QStringLiteral("app"), "program", 0755);
}

void PublishSite::Add(const QString& version, const QString& package, const QString& platform)
{
    QStringList words = AddArguments(tree.Root(), Server());
    words = With(words, QStringLiteral("--name"), package);
    words = With(words, QStringLiteral("--version"), version);
    words = With(words, QStringLiteral("--platform"), platform);
    Expect(RunPublish(With(words, QStringLiteral("--base-url"), baseUrl)), "add");
}

void PublishSite::Promote(const QString& version)
{
    Expect(RunPublish(PromoteArguments(version, Server())), "promote");
}

void PublishSite::Release(const QString& version)
{
    tree.Remove(QStringLiteral("app")).File(QStringLiteral("app"), version.toUtf8(), 0755);
    Add(version);
    Promote(version);
}

PublishResult PublishSite::Run(const QString& command, const QStringList& more) const
{
    return RunPublish(QStringList{command, Server()} + more);
}

QString PublishSite::BuildPath(const QString& version, const QString& entry, const QString& package,
                               const QString& platform) const
{
    const QString path =
        QStringLiteral("%1/packages/%2-v%3/windows/%4").arg(Server(), package, version, platform);
    return entry.isEmpty() ? path : path + QLatin1Char('/') + entry;
}

QString PublishSite::Offered() const
{
    const QString reply =
        QString::fromUtf8(Read(Server() + QStringLiteral("/packages/version.xml")));
    return QRegularExpression(QStringLiteral("<version>(.*)</version>")).match(reply).captured(1);
}

QStringList PublishSite::History() const
{
    const QString path = Server() + QStringLiteral("/packages/.kxpublish.history");
    if (!Exists(path))
        return {QStringLiteral("(missing)")};
    return QString::fromUtf8(Read(path)).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

QStringList PublishSite::Visible() const
{
    return Snapshot(Server()).filter(
        QRegularExpression(QStringLiteral("^(?!packages/\\.kxpublish)")));
}

} // namespace kxtest
