#pragma once

#include "exitstatus.h"
#include "output/problems.h"
#include "server/history.h"
#include "server/manifest.h"
#include "server/servertree.h"
#include "signing/keyfiles.h"

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

namespace publish {

struct RollbackSettings
{
    QString serverTree;   //!< directory that holds the builds
    QString as;           //!< version to publish the older builds as; empty: under their own
    SigningOptions sign;  //!< the key to sign them anew with
    QStringList keyFiles; //!< public keys that they may be signed with, besides that one
    bool dryRun = false;
    int waitSeconds = 0; //!< how long to wait for another run, 0 to ServerTree::maxWait
};

/** What a rollback changed, or would change. */
struct RollbackResult
{
    QString before;         //!< version that clients were offered
    QString target;         //!< version that they go back to
    QString offered;        //!< what it is called now
    QList<Build> published; //!< builds that were made for that
    bool dryRun = false;

    QStringList Lines() const;
    QJsonObject ToJson() const;
};

/**
 * Offers clients what they were offered before. With a version of its own the older builds are
 * published once more under it, for hosts that never take an earlier version. A signature names the
 * version, so they are signed anew, after everything has been checked with the one that they have:
 * whoever can write to the server must not get a signature for it.
 */
class RollbackCommand
{
public:
    explicit RollbackCommand(const RollbackSettings& settings);

    /** Does it all, with messages on stderr. */
    ExitStatus Run();
    const RollbackResult& Result() const { return result; }

private:
    Q_DISABLE_COPY(RollbackCommand)

    /** A build that is published once more. */
    struct Copy
    {
        Build from;
        Build to;
        Manifest manifest;
        QByteArray text;      // of the manifest
        QByteArray signature; // of the list of digests; empty: not signed
        QString staged;
        bool placed; // by an earlier run that was interrupted
    };

    void CheckVersion();
    bool FinishEarlierRun(QString& error);
    void PlanCopies();
    void PlanCopy(const Build& from);
    bool CheckKeys();
    bool SignAnew(Copy& copy, const QByteArray& text);
    void CheckContents(const Copy& copy);
    bool Stage(Copy& copy, QString& error);
    bool StageFiles(const Copy& copy, QString& error);
    bool PlaceCopies(QString& error);
    void TakeCopiesAway(qsizetype count);
    bool Offer(QString& error);
    ExitStatus Refuse();
    ExitStatus Fail(const QString& error);
    ExitStatus GiveUp();

    RollbackSettings settings;
    ServerTree server;
    Problems problems;
    History history;
    SecretKey key;
    QList<guard::PublicKey> trusted; // keys of the builds that are signed anew
    QList<Copy> copies;
    RollbackResult result;
};

} // namespace publish
