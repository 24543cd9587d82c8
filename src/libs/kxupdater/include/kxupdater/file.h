#pragma once

#include <kxupdater/kxupdater_export.h>

#include <QFileDevice>
#include <QList>
#include <QMetaType>
#include <QString>

namespace updater {

/**
 * One entry of an installed tree or of a package: a regular file or a symbolic link.
 * A plain value; built whole, then only copied. It is a symbolic link exactly when SymlinkPath() is
 * not empty.
 */
class KXUPDATER_EXPORT File
{
public:
    /** Everything empty, size 0. */
    File();
    /** See the getters for the form of each argument; note their order. */
    File(const QString& name, const QString& md5, quint64 size, const QString& permissions,
         const QString& symlinkPath);
    /** A copy of `other`. */
    File(const File& other);
    /** Becomes a copy of `other`. */
    File& operator=(const File& other);
    ~File();

    /**
     * Same size, name, digest and link target. Letter case does not count in the digest, and the
     * permissions take no part: a scanned tree carries none, and equals a manifest that does.
     */
    bool operator==(const File& other) const;

    /** Path relative to the root of the tree, with "/" as separator. */
    QString Name() const;
    /** MD5 as 32 hexadecimal digits; of the target text in UTF-8 for a symbolic link. */
    QString MD5() const;
    /** Size in bytes; for a symbolic link the length of its target text in UTF-16 code units. */
    quint64 Size() const;
    /** Ten characters as a directory listing shows them ("-rwxr-xr-x"), or empty when unknown. */
    QString PermissionsString() const;
    /**
     * PermissionsString() as flags of owner, group and others; none for a text of fewer than ten
     * characters. The first character and those after the tenth are ignored.
     */
    QFileDevice::Permissions Permissions() const;
    /** True when SymlinkPath() is not empty. */
    bool IsSymlink() const;
    /** Target of a symbolic link, relative to the directory that holds the link. */
    QString SymlinkPath() const;

private:
    friend KXUPDATER_EXPORT size_t qHash(const File& file, size_t seed);

    QString name;
    QString md5;
    QString permissions;
    quint64 size = 0;
    QString symlinkPath;
};

/**
 * Hash of a record, for hashed sets. The digest counts letter by letter, so records that are equal
 * but differ in the case of their digests hash differently: a QSet<File> takes such a pair for one
 * record or for two by chance. Compare digests too where that matters.
 */
KXUPDATER_EXPORT size_t qHash(const File& file, size_t seed = 0);

/** Records of one tree; the meta-type "updater::FileList". */
using FileList = QList<File>;

} // namespace updater

Q_DECLARE_METATYPE(updater::FileList)
