#pragma once

#include <QString>

/**
 * Starts `name`, the program that a package XML names, from the directory `application`, detached
 * and without the standard streams. The name is the server's: it must be relative and lead to an
 * executable file inside the directory, also when links are followed. Empty for success, else why
 * nothing was started.
 */
QString Launch(const QString& application, const QString& name);
