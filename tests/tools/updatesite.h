#pragma once

#include "httptestserver.h"

#include <kxupdater/file.h>

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

/**
 * Everything around one application in a temporary directory: the trees of two versions, a server
 * that publishes them, the application and the download directory, and the command lines.
 */
class UpdateSite
{
public:
    UpdateSite();

    QString Path(const QString& name) const { return directory.filePath(name); }
    QString App() const { return Path(QStringLiteral("app")); }
    QString Backup() const { return Path(QStringLiteral("app.old")); }
    QString Next() const { return Path(QStringLiteral("next")); }
    QString Xml() const { return Path(QStringLiteral("next.xml")); }
    QString Marker() const { return Path(QStringLiteral("next.kxupdate")); }
    /** Tree of version "1.0" or "2.0". */
    QString Tree(const QString& version) const { return Path(QLatin1Char('v') + version); }

    kxtest::HttpTestServer& Server() { return server; }
    QString Url() const;
    /** Makes the version the latest on the server. */
    updater::FileList Publish(const QString& version);
    /** Path of a published file on the server, for a fault. */
    QString FilePath(const QString& version, const QString& name) const;
    QString VersionPath() const { return QStringLiteral("/packages/version.xml"); }
    QString ManifestPath(const QString& version) const;
    /** Puts the version's tree where the application stands. */
    void Install(const QString& version) { CopyTree(Tree(version), App()); }
    static void CopyTree(const QString& from, const QString& to);

    /** Arguments of a command for this site, `more` behind them. */
    QStringList Command(const QString& command, const QString& current = QStringLiteral("1.0"),
                        const QStringList& more = {}) const;
    QString Config() const { return Path(QStringLiteral("hello.conf")); }
    /** Writes Config() with everything that Command() says, paths relative, and `more` lines. */
    void WriteConfig(const QString& current, const QByteArray& more = {}) const;
    /** Arguments of a command that takes all else from Config(). */
    QStringList Configured(const QString& command, const QStringList& more = {}) const;
    /** Arguments of a verification of a directory against Xml(). */
    QStringList Verify(const QString& option, const QString& path) const;

    /** Snapshot of the application, and of a version's tree. */
    QStringList Installed() const;
    QStringList Published(const QString& version) const;

private:
    QTemporaryDir directory;
    kxtest::HttpTestServer server;
};
