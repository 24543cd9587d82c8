#include "diskspace.h"

#include <QFileInfo>
#include <QLocale>
#include <QStorageInfo>

#include <limits>

namespace {

// Sizes come from the server: a sum must not wrap round to a small one.
quint64 Add(quint64 sum, quint64 size)
{
    const quint64 limit = std::numeric_limits<quint64>::max();
    return size > limit - sum ? limit : sum + size;
}

QStorageInfo VolumeOf(QString path)
{
    while (!QFileInfo::exists(path) && path.contains(u'/')) {
        path.truncate(path.lastIndexOf(u'/'));
        if (path.isEmpty())
            path = QStringLiteral("/");
    }
    return QStorageInfo(path);
}

QString Problem(const QStorageInfo& volume, quint64 needed)
{
    if (!volume.isValid() || volume.bytesAvailable() < 0 ||
        needed <= quint64(volume.bytesAvailable()))
        return QString();
    const QLocale locale = QLocale::c();
    return QStringLiteral("Not enough space on '%1': %2 bytes are needed, %3 are free (%4).")
        .arg(volume.rootPath())
        .arg(needed)
        .arg(volume.bytesAvailable())
        .arg(locale.formattedDataSize(volume.bytesAvailable()));
}

} // namespace

QString SpaceProblem(const updater::FileList& manifest, const QString& download,
                     const QString& application)
{
    quint64 whole = 0;
    quint64 missing = 0;
    for (const updater::File& file : manifest) {
        if (file.IsSymlink())
            continue;
        whole = Add(whole, file.Size());
        const QFileInfo present(download + u'/' + file.Name());
        if (download.isEmpty() || quint64(qMax<qint64>(0, present.size())) != file.Size())
            missing = Add(missing, file.Size());
    }

    if (download.isEmpty())
        return Problem(VolumeOf(application), whole);
    const QStorageInfo assembly = VolumeOf(download);
    if (application.isEmpty())
        return Problem(assembly, missing);
    const QStorageInfo installed = VolumeOf(application);
    if (assembly == installed)
        return Problem(assembly, Add(whole, missing));
    const QString problem = Problem(assembly, missing);
    return problem.isEmpty() ? Problem(installed, whole) : problem;
}
