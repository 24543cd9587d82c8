#pragma once

#include <QString>
#include <QStringList>

/** What the command line asks for. Paths are absolute and clean, the URL has no "/" at its end. */
struct Options
{
    enum class Command { Check, Download, Install, Update, Verify };

    Command command = Command::Check;
    QString url;
    QString package;     //!< empty: the one that the kept package XML names (install, verify)
    QString current;     //!< version of the installed application
    QString application; //!< application directory
    QString download;    //!< download directory
    QString xml;         //!< where the package XML is kept
    int logLevel = -1;   //!< most verbose library message to forward, 0 to 7; -1: none
    bool quiet = false;  //!< no states and no progress
};

/** What the caller is to do after ParseOptions(). */
enum class ParseOutcome { Run, Help, Version, Wrong };

/**
 * Reads the command line, program name first. Wrong: `problem` says in one line what is wrong;
 * `options` is complete only for Run.
 */
ParseOutcome ParseOptions(const QStringList& arguments, Options& options, QString& problem);

/** The text of --help. */
QString HelpText();
