#pragma once

#include "commands/verifycommand.h"
#include "output/problems.h"
#include "server/manifest.h"
#include "server/servertree.h"

#include <QSet>

namespace publish {

/** Reads the builds of a directory back. */
class VerifyTree
{
public:
    /** Neither `server` nor `result` is owned. */
    VerifyTree(const VerifySettings& settings, const ServerTree& server, VerifyResult* result);

    void Run();

private:
    Q_DISABLE_COPY(VerifyTree)

    void CheckReply();
    void CheckBuild(const Build& build);
    void CheckManifestFile(const Build& build);
    void CheckSignatures(const Build& build, const QByteArray& text);
    void CheckDirectory(const QString& directory);
    void CheckOpenDirectories();
    void ReadFiles();

    const VerifySettings& settings;
    const ServerTree& server;
    VerifyResult* result;

    // Of the build at hand.
    VerifyResult::Row row;
    Problems problems;
    Manifest manifest;
    QString filesPath;
    QHash<QString, updater::File> expected; // not yet met on the disk
    updater::FileList toRead;

    QSet<QString> checkedDirectories;
};

} // namespace publish
