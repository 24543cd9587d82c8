#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

namespace publish {

/** How the process prints; set once, before anything is printed. */
struct OutputStyle
{
    bool quiet = false; //!< no Say() and no progress
    bool json = false;  //!< data as one JSON object at the end instead of lines
};
void SetOutputStyle(const OutputStyle& style);

/** One message to the user: a line on stderr, after the tool's name. */
void Say(const QString& text);

/** Why something is not done. Part of the JSON object's "problems", too. */
void Complain(const QString& text);

/** A message about something that is done nevertheless. Part of "warnings", too. */
void Warn(const QString& text);

/** One datum for scripts: "KEY: VALUE" as a line on stdout, or a member of the JSON object,
 *  there with capitals instead of dashes. */
void PrintDatum(const QString& key, const QString& value);
/** The same for a number: in JSON it is one, up to 2^53 exactly. */
void PrintDatum(const QString& key, quint64 value);

/** A text as it is, on stdout; nothing with JSON, where PrintJson() says the same. */
void PrintText(const QString& text);

/** Adds the members of `result` to the JSON object; nothing without JSON. */
void PrintJson(const QJsonObject& result);

/** Shows how far the step `label` has come, on a terminal in place. Owner thread only. */
void ShowProgress(int percent, const QString& label);
void EndProgress();

/** Prints what the JSON object holds so far, for a command that goes on for long. */
void FlushOutput();

/** Prints the JSON object, if there is to be one. Once, after everything else. */
void FinishOutput(const QString& command, int exitStatus, const QString& word);

/** True when something of stdout could not be written. */
bool IsOutputLost();

/** `text` with \xNN for each character that does not print, so that it can neither break a line nor
 *  drive the terminal. */
QString Printable(const QString& text);

/**
 * `name` in single quotes for a message, made printable; bytes that are not UTF-8 stand as \xNN
 * too.
 */
QString Shown(const QString& name);
QString Shown(const QByteArray& nativeName);

} // namespace publish
