#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace publish {

/**
 * Configuration of an nginx that serves one server tree on the loopback interface, for trying out.
 * All its paths are relative to the directory that nginx is given as its prefix, so that no name of
 * the machine has to be quoted: the tree is the link "tree" there.
 */
struct NginxConfig
{
    quint16 port = 0;
    QString probe;        //!< name that is answered with itself, to know this server from others
    QString limitRate;    //!< bytes a second of each connection, with "k" or "m"; empty: no limit
    QStringList baseUrls; //!< addresses in manifests that are replaced by Url()
    bool logRequests = true; //!< one line a request on stdout

    /** Address at which the tree is served. */
    QString Url() const;
    /** Text of the configuration file. */
    QByteArray Text() const;
};

} // namespace publish
