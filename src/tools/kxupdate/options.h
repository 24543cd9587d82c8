#pragma once

#include "common/programspec.h"

#include <kxguard/publickey.h>

#include <QList>
#include <QString>
#include <QStringList>

namespace tools {
class CommandLine;
}

/** What the command line asks for. Paths are absolute and clean, the URL has no "/" at its end. */
struct Options
{
    enum class Command { Check, Download, Install, Update, Repair, Verify, Recover, Status };

    Command command = Command::Check;
    QString url;
    QString package;     //!< empty: the one that the kept package XML names (install, verify)
    QString current;     //!< version of the installed application
    QString application; //!< application directory
    QString download;    //!< download directory
    QString xml;         //!< where the package XML is kept
    QString config;      //!< configuration file; empty: none
    bool currentFromConfig = false; //!< `current` stands in the file, not on the command line
    int logLevel = -1;              //!< most verbose library message to forward, 0 to 7; -1: none
    QString logFile;                //!< where library messages are appended; empty: stderr
    QString proxy;                  //!< URL of a proxy, "none", or empty for the system's settings
    QString caFile;                 //!< PEM file of certificates to trust besides the system's
    int timeout = 0;  //!< seconds without any data before a transfer fails; 0: the library's own
    int interval = 0; //!< seconds between two checks of a watch; 0: the library's own
    int wait = 0;     //!< seconds to wait for another process before a recovery
    QStringList keyFiles;         //!< where `keys` come from
    QList<guard::PublicKey> keys; //!< one must have signed what is installed; empty: none need
    bool allowDowngrade = false;  //!< an earlier version than the installed one may be installed
    bool refuseRunning = false;   //!< not while a program of the application runs
    bool watch = false;           //!< stays and checks again and again
    bool run = false;             //!< starts the new executable after a successful swap
    bool json = false;            //!< one JSON object a line instead of data and messages
    bool quiet = false;           //!< no states and no progress
};

/** The command line of the tool: one row a command. */
const tools::ProgramSpec& Program();

/**
 * Fills `options` from a parsed line. Empty for success, else what is wrong, in one line; `options`
 * is complete only for success.
 */
QString ReadOptions(const tools::CommandLine& line, Options& options);
