#pragma once

#include "exitstatus.h"
#include "output/problems.h"
#include "output/progress.h"
#include "server/manifest.h"
#include "server/servertree.h"
#include "signing/keyfiles.h"
#include "signing/signing.h"
#include "source/treecheck.h"
#include "source/treecopy.h"

#include <QString>
#include <QStringList>

namespace publish {

struct AddSettings
{
    QString tree;         //!< directory to publish
    Build build;          //!< what to publish it as
    QString executable;   //!< what clients start afterwards, relative to the tree
    QString baseUrl;      //!< address at which the server tree is served
    QString serverTree;   //!< directory to publish into
    QStringList excludes; //!< patterns of what is left out, as in a .kxpublishignore
    QString notes;        //!< file with release notes; empty for none
    SigningOptions sign;  //!< the key to sign the build with; none for one that is not signed
    int waitSeconds = 0;  //!< how long to wait for another run, 0 to ServerTree::maxWait
    bool dryRun = false;  //!< check and report, and write nothing at all
};

/**
 * Publishes a tree as one build: checks it, brings its files to the server and writes its manifest.
 * Clients are offered the build once its version is promoted.
 */
class AddCommand
{
public:
    /** `progress` is told how far the run has come; not owned, may be null. */
    explicit AddCommand(const AddSettings& settings, ProgressSink* progress = nullptr);

    /** Does it all, with messages on stderr and the result on stdout. */
    ExitStatus Run();

private:
    Q_DISABLE_COPY(AddCommand)

    void CheckSettings();
    void CheckPlaces();
    void CheckNotTaken();
    void CheckNotes();
    void CheckSigning();
    TreeContents CheckTree();
    void CheckExecutable(const TreeContents& contents);
    void CheckAtTheEnd(const TreeContents& contents, const QByteArray& text);
    void CompareWithListing(const TreeContents& before, Problems& found) const;
    ExitStatus Publish(const TreeContents& contents);
    void FillManifest(const TreeContents& contents, const QMap<QString, QByteArray>& digests);
    void Sign(const TreeContents& contents, const QMap<QString, QByteArray>& sha256);
    bool WriteBuild(const QByteArray& text, QString& error);
    QString SignatureProblem(const QByteArray& text) const;
    ExitStatus Refuse();
    ExitStatus Fail(const QString& error);
    ExitStatus GiveUp();
    void Report(const TreeContents& contents, const CopyTotals& totals) const;
    void ListLeftOut(const TreeContents& contents) const;

    AddSettings settings;
    ServerTree server;
    Problems problems;
    ProgressMeter progress;
    Manifest manifest;
    QByteArray notes;
    SecretKey key;
    QMap<QString, QByteArray> made; // content of the files that signing adds, by name
};

} // namespace publish
