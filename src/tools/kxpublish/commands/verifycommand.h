#pragma once

#include "exitstatus.h"
#include "output/problems.h"
#include "server/servertree.h"

#include <kxguard/publickey.h>

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

namespace publish {

struct VerifySettings
{
    QString target;       //!< directory that holds the builds, or the address at which it is served
    QStringList names;    //!< packages; empty: all of a directory. An address needs one
    QString version;      //!< empty: all of a directory, the offered one of an address
    QString platform;     //!< empty: all of a directory, x64 of an address
    QStringList keyFiles; //!< public keys; when there are any, builds have to be signed
    QList<guard::PublicKey> keys; //!< those of the files, read by the command
    int jobs = 4;                 //!< files that are read at the same time, 1 to 16
};

/** What reading everything back has shown. */
struct VerifyResult
{
    struct Row
    {
        Build build;
        qsizetype files = 0; //!< that were read
        quint64 bytes = 0;   //!< of these
        QStringList problems;
        QStringList warnings;
    };

    QString offered; //!< empty when no version is
    QList<Row> builds;
    QStringList problems; //!< of the tree as a whole
    QStringList warnings;

    qsizetype ProblemCount() const;
    QStringList Lines() const;
    QJsonObject ToJson() const;
};

/**
 * Reads published builds back as a client would, from the disk or over the network, and compares
 * them with their manifests. Changes nothing, and goes on after each problem.
 */
class VerifyCommand
{
public:
    explicit VerifyCommand(const VerifySettings& settings);

    /** Does it all, with messages on stderr. */
    ExitStatus Run();
    const VerifyResult& Result() const { return result; }

private:
    Q_DISABLE_COPY(VerifyCommand)

    void CheckSettings(bool isAddress);

    VerifySettings settings;
    Problems problems;
    VerifyResult result;
};

} // namespace publish
