#pragma once

#include <kxupdater/file.h>

#include <QByteArray>
#include <QString>

namespace publish {

/** Everything that an index.xml says. */
struct Manifest
{
    QString package;
    QString downloadUrl;
    QString executable;
    updater::FileList files;
};

/** Permission bits as a directory listing shows them; "lrwxrwxrwx" for every link. */
QString PermissionText(int mode, bool isLink);

/** The manifest as the text of an index.xml, byte for byte the same for the same manifest. */
QByteArray WriteManifest(const Manifest& manifest);

/**
 * Reads the text of an index.xml with the reader of the clients and looks for `package`. Without a
 * usable build the result's list of files is empty.
 */
Manifest ReadManifest(const QString& package, const QByteArray& text);

/** Why clients would not get from `text` what `manifest` says; empty when they would. */
QString ManifestProblem(const Manifest& manifest, const QByteArray& text);

/** Bytes of a reply beyond which clients give up on it. */
qint64 MaxReplySize();

/** The version reply that offers `version`, as the text of a version.xml. */
QByteArray WriteVersionReply(const QString& version);

/** The version in the text of a version.xml; empty when it has none. */
QString ReadVersionReply(const QByteArray& text);

} // namespace publish
