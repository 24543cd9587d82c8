#pragma once

#include "exitstatus.h"
#include "manifest.h"
#include "problems.h"
#include "servertree.h"
#include "treecheck.h"

#include <QString>

namespace publish {

struct AddSettings
{
    QString tree;       //!< directory to publish
    Build build;        //!< what to publish it as
    QString executable; //!< what clients start afterwards, relative to the tree
    QString baseUrl;    //!< address at which the server tree is served
    QString serverTree; //!< directory to publish into
};

/**
 * Publishes a tree as one build: checks it, scans it, copies its files and writes its manifest.
 * Clients are offered the build once its version is promoted.
 */
class AddCommand
{
public:
    explicit AddCommand(const AddSettings& settings);

    /** Does it all, with messages on stderr and the result on stdout. */
    ExitStatus Run();

private:
    Q_DISABLE_COPY(AddCommand)

    void CheckSettings();
    void CheckPlaces();
    void CheckExecutable(const TreeContents& contents);
    bool Scan(const TreeContents& contents, QString& error);
    void CompareWithScan(const TreeContents& contents, const updater::FileList& scanned);
    ExitStatus Publish(const TreeContents& contents);
    ExitStatus Refuse();
    ExitStatus Fail(const QString& error);
    ExitStatus GiveUp();
    void Report() const;

    AddSettings settings;
    ServerTree server;
    Problems problems;
    Manifest manifest;
};

} // namespace publish
