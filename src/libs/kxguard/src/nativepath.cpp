#include "nativepath.h"

#include <QDir>
#include <QFile>

#include <type_traits>

namespace guard {

namespace fs = std::filesystem;

fs::path ToNative(const QString& path)
{
    if constexpr (std::is_same_v<fs::path::value_type, char>)
        return fs::path(QFile::encodeName(path).toStdString());
    else
        return fs::path(QDir::toNativeSeparators(path).toStdWString());
}

QString FromNative(const fs::path& path)
{
    if constexpr (std::is_same_v<fs::path::value_type, char>)
        // A mark of byte order is a character of the name that it begins; decoded alone, it is
        // lost.
        return QFile::decodeName(QByteArray::fromStdString('/' + path.string())).mid(1);
    else
        return QString::fromStdWString(path.wstring());
}

} // namespace guard
