#include "recordcheck.h"

#include "output/console.h"
#include "source/linkcheck.h"
#include "source/names.h"
#include "source/treecheck.h"

#include <QCryptographicHash>
#include <QSet>

#include <algorithm>

namespace publish {
namespace {

bool IsDigest(const QString& text)
{
    return text.size() == 32 && std::all_of(text.begin(), text.end(), [](QChar c) {
               return (c >= QLatin1Char('0') && c <= QLatin1Char('9')) ||
                      (c.toLower() >= QLatin1Char('a') && c.toLower() <= QLatin1Char('f'));
           });
}

bool IsHidden(const QString& name)
{
    return name.startsWith(QLatin1Char('.')) || name.contains(QLatin1String("/."));
}

QString FileProblem(const updater::File& file)
{
    if (!IsDigest(file.MD5()))
        return QStringLiteral("its digest is not 32 hexadecimal digits");
    if (file.PermissionsString().size() >= 10 && !(file.Permissions() & QFileDevice::ReadOwner))
        return QStringLiteral("its owner may not read it");
    return {};
}

// A scan reports of a link the digest and the length of its text.
QString LinkProblem(const updater::File& file)
{
    const QString target = file.SymlinkPath();
    const QString problem = TargetTextProblem(target);
    if (!problem.isEmpty())
        return problem;
    const QByteArray digest = QCryptographicHash::hash(target.toUtf8(), QCryptographicHash::Md5);
    if (file.Size() != quint64(target.size()) ||
        file.MD5().compare(QLatin1String(digest.toHex()), Qt::CaseInsensitive) != 0)
        return QStringLiteral("its size or digest is not that of the target's text");
    return {};
}

QString NameProblem(const updater::File& file, const QString& baseUrl)
{
    const QString problem = PathProblem(file.Name(), baseUrl);
    if (problem.isEmpty() && IsHidden(file.Name()))
        return QStringLiteral("hidden; clients skip hidden entries");
    return problem;
}

} // namespace

void CheckRecords(const Manifest& manifest, Problems* problems)
{
    TreeContents contents;
    QSet<QString> names;
    for (const updater::File& file : manifest.files) {
        const QString name = file.Name();
        QString problem = NameProblem(file, manifest.downloadUrl);
        if (problem.isEmpty())
            problem = file.IsSymlink() ? LinkProblem(file) : FileProblem(file);
        if (problem.isEmpty() && names.contains(name))
            problem = QStringLiteral("listed twice");
        names.insert(name);
        if (!problem.isEmpty()) {
            problems->Refuse(Shown(name), problem);
            continue;
        }
        if (file.IsSymlink())
            contents.links.insert(name, file.SymlinkPath());
        else
            contents.files.insert(name, {});
        for (qsizetype slash = name.indexOf(QLatin1Char('/')); slash >= 0;
             slash = name.indexOf(QLatin1Char('/'), slash + 1))
            contents.directories.insert(name.left(slash));
    }
    for (const QString& directory : std::as_const(contents.directories)) {
        if (names.contains(directory))
            problems->Refuse(Shown(directory),
                             QStringLiteral("listed, and other entries lie in it"));
    }
    CheckLinks(contents, problems);
    if (!names.contains(manifest.executable))
        problems->Refuse(Shown(manifest.executable),
                         QStringLiteral("the program to start is not a file of the build"));
}

} // namespace publish
