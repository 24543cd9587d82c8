#pragma once

#include <kxupdater/file.h>

#include <QString>

namespace kxtest {

/** Records of the tree under `root` as a publisher lists them: with permissions, link targets
 *  relative to the link's directory, sorted by name, hidden entries left out. */
updater::FileList ScanForManifest(const QString& root);

/** "-rwxr-xr-x" for 0755. */
QString PermissionsText(int mode);

/** `text` as the value of an XML attribute. */
QString XmlEscaped(const QString& text);

/** One "file" element for each record. */
QString FileElements(const updater::FileList& files);

/** A manifest with one package and one build, in UTF-8. */
QString ManifestFor(const QString& package, const QString& downloadUrl, const QString& executable,
                    const updater::FileList& files);

/** A version reply. */
QString VersionReply(const QString& version);

/** Path of the manifest below the server's root, without a leading "/". */
QString ManifestPath(const QString& package, const QString& version, const QString& platform);

/**
 * Publishes `tree` below `serverRoot` as the latest version of `package`: the version reply, the
 * manifest, and the files under "files/PACKAGE/VERSION/PLATFORM". `baseUrl` is the server's URL
 * without a "/" at the end. Returns the manifest's records.
 */
updater::FileList PublishTree(const QString& serverRoot, const QString& package,
                              const QString& version, const QString& platform, const QString& tree,
                              const QString& baseUrl, const QString& executable = {});

} // namespace kxtest
