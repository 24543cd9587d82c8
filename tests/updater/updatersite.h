#pragma once

#include "httptestserver.h"
#include "treebuilder.h"
#include "updater.h"
#include "updaterjournal.h"

#include <QNetworkAccessManager>

#include <memory>

namespace kxtest {

/**
 * An updater with all that it needs: a server, an application directory "app", a download directory
 * "next" and the published tree "fresh", side by side below one temporary directory. In the journal
 * that directory stands as "~" and the server as "http://server". The package is "demo", the
 * installed version 1.0.
 */
class UpdaterSite
{
public:
    explicit UpdaterSite(const QStringList& categories = {QStringLiteral("updater.core")});

    QString Path(const QString& name) const { return base.Path(name); }
    QString VersionPath() const { return QStringLiteral("/packages/version.xml"); }
    QString ManifestPath(const QString& version) const;
    /** Offers what stands in "fresh" as `version`; returns its records. */
    updater::FileList Publish(const QString& version, const QString& executable = {});
    /** Offers these records, whatever stands in "fresh". */
    void Publish(const QString& version, const updater::FileList& files,
                 const QString& executable = {});

    /** Makes the updater and runs the event loop until it waits for commands. */
    bool Start();
    /** Gives the command, if any, and runs the event loop until `state` is reached: for "SUCCESS"
     *  until the machine has stopped. */
    bool Run(const QString& command, const QString& state);
    void Command(const QString& name);

    HttpTestServer server;
    TreeBuilder base;
    QNetworkAccessManager manager;
    Journal journal;
    std::unique_ptr<updater::Updater> updater;
};

/** Shortens the pause between the tries of a server query, for as long as it lives. */
class ShortRetries
{
public:
    explicit ShortRetries(int milliseconds = 1);
    ~ShortRetries();
    ShortRetries(const ShortRetries&) = delete;
    ShortRetries& operator=(const ShortRetries&) = delete;

private:
    int before;
};

} // namespace kxtest
