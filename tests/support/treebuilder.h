#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>

namespace kxtest {

/**
 * Builds a directory tree on disk: kxtest::TreeBuilder().File("bin/app", "x", 0755).Dir("empty").
 * Without a root it owns a temporary directory that goes with it; a given root is made when missing
 * and stays. Names are relative, "/" as separator; missing parents are made. An entry that cannot
 * be made ends the test program with a message: a test must never go on with half a tree.
 */
class TreeBuilder
{
public:
    TreeBuilder();
    explicit TreeBuilder(const QString& root);

    QString Root() const { return root; }
    /** Absolute path of the entry `name`. */
    QString Path(const QString& name) const { return root + QLatin1Char('/') + name; }

    TreeBuilder& Dir(const QString& name, int mode = 0755);
    TreeBuilder& File(const QString& name, const QByteArray& bytes, int mode = 0644);
    /** A file of `size` bytes that `seed` decides. */
    TreeBuilder& RandomFile(const QString& name, qint64 size, quint32 seed, int mode = 0644);
    /** A file of `size` zero bytes that takes no room on disk. */
    TreeBuilder& Sparse(const QString& name, qint64 size);
    /** A symbolic link with exactly the text `target`, which need not exist. */
    TreeBuilder& Symlink(const QString& name, const QString& target);
    TreeBuilder& Remove(const QString& name);

private:
    void MakeParent(const QString& path);

    std::unique_ptr<QTemporaryDir> temporary;
    QString root;
};

/**
 * The tree under `root` as sorted lines "NAME file MODE SIZE MD5", "NAME dir MODE",
 * "NAME link TARGET" and "NAME special MODE", hidden entries included, links never followed.
 * A root that does not exist gives the one line "(missing)".
 */
QStringList Snapshot(const QString& root);

/** `size` bytes that look random and are the same for the same seed. */
QByteArray RandomBytes(qint64 size, quint32 seed);
/** MD5 as 32 lower-case hexadecimal digits. */
QString MD5Of(const QByteArray& bytes);
QString MD5OfFile(const QString& path);
/** The whole content; a file that cannot be read ends the test program. */
QByteArray Read(const QString& path);
/** Writes the whole content, keeping the mode of an existing file. */
void Write(const QString& path, const QByteArray& bytes);
/** Removes a file, a link or a whole tree, links never followed; a missing path is fine. */
void Remove(const QString& path);
void SetMode(const QString& path, int mode);
int Mode(const QString& path);
/** True when anything stands at `path`, a dangling link included. */
bool Exists(const QString& path);
/** The text of the link as it stands; empty when `path` is no link. */
QString LinkText(const QString& path);

} // namespace kxtest
