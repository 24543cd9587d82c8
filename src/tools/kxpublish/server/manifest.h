#pragma once

#include <kxupdater/file.h>

#include <QByteArray>
#include <QMap>
#include <QString>

QT_BEGIN_NAMESPACE
class QIODevice;
QT_END_NAMESPACE

namespace publish {

/** The signature of a build, as the attributes of its element. */
struct ManifestSignature
{
    QString version;
    QString platform;
    QString signature; //!< in base64, as the second line of a signature file
    QString trustedComment;
    QString commentSignature; //!< in base64, as the fourth line

    bool IsEmpty() const { return signature.isEmpty(); }
};

/** Everything that an index.xml says. */
struct Manifest
{
    QString package;
    QString downloadUrl;
    QString executable;
    updater::FileList files;
    ManifestSignature signature;      //!< empty in a build that is not signed
    QMap<QString, QByteArray> sha256; //!< hexadecimal digits, by name of file; of a signed build
};

/** Permission bits as a directory listing shows them; "lrwxrwxrwx" for every link. */
QString PermissionText(int mode, bool isLink);

/** The manifest as the text of an index.xml, byte for byte the same for the same manifest. */
QByteArray WriteManifest(const Manifest& manifest);

/**
 * Reads the text of an index.xml, what clients use of it with the reader of the clients and looks
 * for `package`. Without a usable build the result's list of files is empty. The signature is not
 * checked.
 */
Manifest ReadManifest(const QString& package, const QByteArray& text);

/** True when the build that clients choose from the index.xml in `device` carries a signature, good
 *  or not. Reads no further than that build's beginning. */
bool CarriesSignature(const QString& package, QIODevice& device);

/** Why clients would not get from `text` what `manifest` says; empty when they would. */
QString ManifestProblem(const Manifest& manifest, const QByteArray& text);

/** Bytes of a reply beyond which clients give up on it. */
qint64 MaxReplySize();

/** The version reply that offers `version`, as the text of a version.xml. */
QByteArray WriteVersionReply(const QString& version);

/** The version in the text of a version.xml; empty when it has none. */
QString ReadVersionReply(const QByteArray& text);

} // namespace publish
