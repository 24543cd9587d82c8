#include "manifest.h"

#include "treebuilder.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>

namespace kxtest {
namespace {

updater::File RecordOf(const QFileInfo& info, const QString& name)
{
    const QString path = info.filePath();
    const QString text = LinkText(path);
    if (!text.isEmpty()) {
        const QDir directory = info.dir();
        const QString target =
            directory.relativeFilePath(QDir::cleanPath(directory.absoluteFilePath(text)));
        return updater::File(name, MD5Of(target.toUtf8()), static_cast<quint64>(target.size()), {},
                             target);
    }
    return updater::File(name, MD5OfFile(path), static_cast<quint64>(info.size()),
                         PermissionsText(Mode(path)), {});
}

void Collect(const QString& directory, const QString& prefix, updater::FileList& files)
{
    const QFileInfoList entries = QDir(directory).entryInfoList(
        QDir::Dirs | QDir::Files | QDir::System | QDir::NoDotAndDotDot);
    for (const QFileInfo& entry : entries) {
        const QString name = prefix + entry.fileName();
        if (entry.isDir() && !entry.isSymLink())
            Collect(entry.filePath(), name + QLatin1Char('/'), files);
        else
            files << RecordOf(entry, name);
    }
}

} // namespace

updater::FileList ScanForManifest(const QString& root)
{
    updater::FileList files;
    Collect(root, {}, files);
    std::sort(files.begin(), files.end(),
              [](const updater::File& a, const updater::File& b) { return a.Name() < b.Name(); });
    return files;
}

QString PermissionsText(int mode)
{
    QString text = QStringLiteral("-rwxrwxrwx");
    for (int bit = 0; bit < 9; ++bit) {
        if (!(mode & (0400 >> bit)))
            text[bit + 1] = QLatin1Char('-');
    }
    return text;
}

QString XmlEscaped(const QString& text)
{
    QString escaped;
    for (const QChar c : text) {
        if (c < QLatin1Char(' ') || QStringLiteral("<>&\"").contains(c))
            escaped += QStringLiteral("&#%1;").arg(c.unicode());
        else
            escaped += c;
    }
    return escaped;
}

QString FileElements(const updater::FileList& files)
{
    QString elements;
    for (const updater::File& file : files) {
        elements +=
            QStringLiteral("   <file name=\"%1\" md5=\"%2\" size=\"%3\""
                           " permissions=\"%4\" symlink=\"%5\"/>\n")
                .arg(XmlEscaped(file.Name()), XmlEscaped(file.MD5()), QString::number(file.Size()),
                     XmlEscaped(file.PermissionsString()), XmlEscaped(file.SymlinkPath()));
    }
    return elements;
}

QString ManifestFor(const QString& package, const QString& downloadUrl, const QString& executable,
                    const updater::FileList& files)
{
    return QStringLiteral("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
                          "<packages>\n"
                          " <package name=\"%1\">\n"
                          "  <build DownloadURL=\"%2\" PostExec=\"%3\">\n"
                          "%4"
                          "  </build>\n"
                          " </package>\n"
                          "</packages>\n")
        .arg(XmlEscaped(package), XmlEscaped(downloadUrl), XmlEscaped(executable),
             FileElements(files));
}

QString VersionReply(const QString& version)
{
    return QStringLiteral("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<version>%1</version>\n")
        .arg(XmlEscaped(version));
}

QString ManifestPath(const QString& package, const QString& version, const QString& platform)
{
    return QStringLiteral("packages/%1-v%2/windows/%3/index.xml").arg(package, version, platform);
}

updater::FileList PublishTree(const QString& serverRoot, const QString& package,
                              const QString& version, const QString& platform, const QString& tree,
                              const QString& baseUrl, const QString& executable)
{
    const QString area = QStringLiteral("files/%1/%2/%3").arg(package, version, platform);
    const updater::FileList files = ScanForManifest(tree);
    TreeBuilder server(serverRoot);
    for (const updater::File& file : files) {
        if (!file.IsSymlink())
            server.File(area + QLatin1Char('/') + file.Name(),
                        Read(tree + QLatin1Char('/') + file.Name()));
    }
    server.File(
        ManifestPath(package, version, platform),
        ManifestFor(package, baseUrl + QLatin1Char('/') + area, executable, files).toUtf8());
    // The version reply comes last, as a careful publisher does it.
    server.File(QStringLiteral("packages/version.xml"), VersionReply(version).toUtf8());
    return files;
}

} // namespace kxtest
