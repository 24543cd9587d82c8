#pragma once

#include <QString>

namespace publish {

// Each check answers why its text cannot be published, as the end of a message, and an empty text
// when it can.

/** A package: letters, digits and "._+~-", since it stands in URLs and directory names as it is. */
QString PackageProblem(const QString& package);

/**
 * A version: like a package, and without "-v". The server's directories are called
 * PACKAGE-vVERSION, and packages such as "map-viewer" are common; with this rule the last "-v" of a
 * directory's name is always the one that separates the two.
 */
QString VersionProblem(const QString& version);

/** A platform: what a client may call its own. */
QString PlatformProblem(const QString& platform);

/** The address of a server tree: absolute, http or https, nothing behind its path. */
QString BaseUrlProblem(const QString& url);

/** True when clients can order `version` by its numbers. */
bool IsNumbered(const QString& version);

/**
 * The path of an entry of a tree, with "/" as separator, for a client that asks for it below
 * `baseUrl`. Does not look at hidden names: a hidden attribute need not show in the name.
 */
QString PathProblem(const QString& path, const QString& baseUrl);

/** The target text of a link, apart from where it leads. */
QString TargetTextProblem(const QString& target);

} // namespace publish
