#include "filepath.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>

namespace common {
namespace {

constexpr size_t longestName = 255;

bool IsSeparator(fileops::Name::value_type c)
{
    return c == '/' || c == fileops::Path::preferred_separator;
}

} // namespace

SplitPath Split(const QString& path)
{
    const fileops::Path whole = ToNative(path);
    const size_t rootSize = whole.root_path().native().size();
    fileops::Name text = whole.native();
    // "a/./" and "a/." are "a"; the root stays.
    for (;;) {
        const size_t size = text.size();
        if (size > rootSize && IsSeparator(text[size - 1]))
            text.pop_back();
        else if (size > rootSize && text[size - 1] == '.' &&
                 (size == 1 || IsSeparator(text[size - 2])))
            text.pop_back();
        else
            break;
    }
    SplitPath split;
    if (text.size() <= rootSize)
        return {whole.root_path(), {}};
    size_t begin = text.size();
    while (begin > rootSize && !IsSeparator(text[begin - 1]))
        --begin;
    split.name = text.substr(begin);
    split.parent = begin == 0 ? fileops::Path(".") : fileops::Path(text.substr(0, begin));
    if (split.name == fileops::Path("..").native())
        return {fileops::Path(text), {}};
    return split;
}

fileops::Path ToNative(const QString& path)
{
#ifdef Q_OS_WIN
    return fileops::Path(QDir::toNativeSeparators(path).toStdWString());
#else
    return fileops::Path(QFile::encodeName(path).toStdString());
#endif
}

QString FromNative(const fileops::Path& path)
{
#ifdef Q_OS_WIN
    return QDir::fromNativeSeparators(QString::fromStdWString(path.native()));
#else
    return QFile::decodeName(QByteArray::fromStdString(path.native()));
#endif
}

QString Reason(const fileops::Error& error)
{
    if (error.category() == std::system_category())
        return qt_error_string(error.value());
    return QString::fromStdString(error.message());
}

bool HasNull(const QString& path)
{
    return path.contains(QChar(0));
}

fileops::Name HiddenName(const fileops::Name& name, const char* suffix)
{
    const fileops::Name tail = fileops::Path(suffix).native();
    const fileops::Name dot = fileops::Path(".").native();
    if (dot.size() + name.size() + tail.size() <= longestName)
        return dot + name + tail;
    const QByteArray bytes(reinterpret_cast<const char*>(name.data()),
                           static_cast<qsizetype>(name.size() * sizeof(name[0])));
    const QByteArray hash = QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex();
    const fileops::Name mark = fileops::Path('-' + hash.toStdString()).native();
    size_t kept = longestName - dot.size() - mark.size() - tail.size();
    // A cut inside a character would not be a name to every file system.
    if constexpr (sizeof(name[0]) == 1) {
        while (kept > 0 && (static_cast<unsigned char>(name[kept]) & 0xc0u) == 0x80u)
            --kept;
    }
    return dot + name.substr(0, kept) + mark + tail;
}

} // namespace common
