#pragma once

#include <QByteArray>
#include <QString>

namespace publish {

/** One message to the user: a line on stderr, after the tool's name. */
void Say(const QString& text);

/** A message about something that is done nevertheless. */
void Warn(const QString& text);

/** One datum for scripts: "KEY: VALUE" as a line on stdout. */
void PrintDatum(const QString& key, const QString& value);

/** A text as it is, for --help and --version, on stdout. */
void PrintText(const QString& text);

/**
 * `name` in single quotes for a message. Characters that do not print, and bytes that are not
 * UTF-8, stand as \xNN, so that a name can neither break a line nor drive the terminal.
 */
QString Shown(const QString& name);
QString Shown(const QByteArray& nativeName);

} // namespace publish
