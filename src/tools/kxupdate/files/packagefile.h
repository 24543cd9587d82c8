#pragma once

#include <kxupdater/file.h>

#include <QString>

/** The package XML of a download, kept in a file for a later install or verification. */
namespace packagefile {

/** Reads `path` into `xml`. Empty for success, else why it cannot be read. */
QString Read(const QString& path, QString& xml);

/**
 * Writes `xml` to `path`, whole or not at all, and with it which version it describes. Empty for
 * success, else the reason.
 */
QString Write(const QString& path, const QString& xml, const QString& version);

/** The version that Write() was told; empty when it is not known. */
QString Version(const QString& xml);

/** The program that the package `name` is started with; the server's word, empty for none. */
QString Executable(const QString& name, const QString& xml);

/** Name of the first package in `xml`; empty when there is none. */
QString PackageName(const QString& xml);

/** The files that `xml` lists for the package `name`; empty also when it cannot be read. */
updater::FileList Files(const QString& name, const QString& xml);

} // namespace packagefile
