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
        return QFile::decodeName(QByteArray::fromStdString(path.string()));
    else
        return QString::fromStdWString(path.wstring());
}

} // namespace guard
