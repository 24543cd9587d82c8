// Names of entries: what passes stays below the root, by the text and on a real disk.

#include "fuzztarget.h"

#include <kxcommon/ifiledownload.h>
#include <kxcommon/pathguard.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <algorithm>
#include <cctype>
#include <filesystem>

namespace {

namespace fs = std::filesystem;
using common::PathGuard;

bool IsBelow(const fs::path& path, const fs::path& root)
{
    const auto difference = std::mismatch(root.begin(), root.end(), path.begin(), path.end());
    return difference.first == root.end() && difference.second != path.end();
}

// A tree with one entry of each kind, beside which nothing may be reached.
class Tree
{
public:
    Tree() : root(QFile::encodeName(QDir(directory.path()).canonicalPath()).toStdString() + "/root")
    {
        fs::create_directories(root / "dir" / "sub");
        fs::create_directory_symlink("..", root / "up");
        fs::create_directory_symlink("../..", root / "dir" / "up");
        fs::create_symlink("nowhere", root / "dangling");
        QFile file(QString::fromStdString((root / "plain").string()));
        KX_FUZZ_REQUIRE(file.open(QIODevice::WriteOnly));
    }

    const fs::path& Root() const { return root; }

private:
    QTemporaryDir directory;
    fs::path root;
};

void CheckOnDisk(const QString& name)
{
    static const Tree tree;
    const QString root = QString::fromStdString(tree.Root().string());
    if (!PathGuard::Violation(root, name).isEmpty())
        return;
    // The entry itself may be a link: it is replaced and not followed.
    std::error_code error;
    const fs::path parent = fs::weakly_canonical(
        (tree.Root() / QFile::encodeName(name).toStdString()).parent_path(), error);
    if (!error)
        KX_FUZZ_REQUIRE(parent == tree.Root() || IsBelow(parent, tree.Root()));
}

void CheckPartial(const QString& name)
{
    const QString partial = common::http::PartialFilePath(QStringLiteral("/r/") + name);
    const QString fileName = partial.mid(partial.lastIndexOf(QLatin1Char('/')) + 1);
    KX_FUZZ_REQUIRE(partial.startsWith(QLatin1String("/r/")));
    KX_FUZZ_REQUIRE(common::http::IsPartialFileName(fileName));
    KX_FUZZ_REQUIRE(QFile::encodeName(fileName).size() <= 255);
    KX_FUZZ_REQUIRE(PathGuard::NameViolation(partial.mid(3)).isEmpty());
}

void Check(const QString& name)
{
    const bool passes = PathGuard::NameViolation(name).isEmpty();
    const QByteArray encoded = QFile::encodeName(name);
    const fs::path path = fs::path("/r/root") / encoded.toStdString();
    if (!passes) {
        KX_FUZZ_REQUIRE(!PathGuard::Violation(QStringLiteral("/r/root"), name).isEmpty());
        return;
    }
    KX_FUZZ_REQUIRE(IsBelow(path.lexically_normal(), "/r/root"));
    // Nothing that the system would end the name at, and no directory.
    KX_FUZZ_REQUIRE(!encoded.contains('\0') && path.has_filename());
    // Nor on a system with other separators and with drives.
    KX_FUZZ_REQUIRE(!encoded.contains('\\'));
    KX_FUZZ_REQUIRE(!(encoded.size() > 1 &&
                      std::isalpha(static_cast<unsigned char>(encoded.at(0))) &&
                      encoded.at(1) == ':'));
    CheckOnDisk(name);
    CheckPartial(name);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Check(kxfuzz::Text(data, size));
    Check(kxfuzz::CodeUnits(data, size));
    return 0;
}
