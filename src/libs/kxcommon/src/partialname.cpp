#include <kxcommon/ifiledownload.h>

#include <QCryptographicHash>
#include <QDir>
#include <QFile>

namespace common::http {
namespace {

constexpr QLatin1Char prefix('.');
constexpr QLatin1String suffix(".kx.part");
// What the usual file systems allow a name, in bytes; Windows counts UTF-16 and allows more.
constexpr qsizetype longestName = 255;

// Of `name` on the disk. Half of a surrogate pair takes more there than in UTF-8.
qsizetype BytesOf(const QString& name)
{
    return qMax(QFile::encodeName(name).size(), name.toUtf8().size());
}

// The longest beginning of `name` that takes no more than `bytes`, cut between characters.
QString Beginning(const QString& name, qsizetype bytes)
{
    QString result = name.left(bytes);
    while (BytesOf(result) > bytes || result.back().isHighSurrogate())
        result.chop(1);
    return result;
}

} // namespace

QString PartialFilePath(const QString& destination)
{
    const QString path = QDir::fromNativeSeparators(destination);
    const qsizetype slash = path.lastIndexOf(QLatin1Char('/'));
    QString name = path.mid(slash + 1);
    const qsizetype room = longestName - 1 - suffix.size();
    if (BytesOf(name) > room) {
        const QByteArray hash =
            QCryptographicHash::hash(name.toUtf8(), QCryptographicHash::Md5).toHex();
        name =
            Beginning(name, room - 1 - hash.size()) + QLatin1Char('-') + QString::fromLatin1(hash);
    }
    return path.left(slash + 1) + prefix + name + suffix;
}

bool IsPartialFileName(const QString& fileName)
{
    return fileName.startsWith(prefix) && fileName.endsWith(suffix) &&
           fileName.size() > 1 + suffix.size() && !fileName.contains(QLatin1Char('/'));
}

} // namespace common::http
