#pragma once

#include "exitstatus.h"
#include "output/problems.h"
#include "output/progress.h"
#include "server/servertree.h"
#include "signing/keyfiles.h"
#include "signing/signing.h"
#include "source/treecheck.h"

#include <QString>

namespace publish {

struct SignSettings
{
    QString tree; //!< directory to sign
    Build build;  //!< what the signature vouches for
    SigningOptions sign;
};

/**
 * Makes a directory a signed tree: writes the list of its digests and the signature of that into
 * it. They are those of the build that would be published from it, byte for byte. A signature is
 * for all that is there, so nothing may be left out.
 */
class SignCommand
{
public:
    /** `progress` is told how far the run has come; not owned, may be null. */
    explicit SignCommand(const SignSettings& settings, ProgressSink* progress = nullptr);

    /** Does it all, with messages on stderr and the result on stdout. */
    ExitStatus Run();

private:
    Q_DISABLE_COPY(SignCommand)

    void CheckSettings();
    TreeContents CheckTree();
    void CheckNothingIsLeftOut(const TreeContents& contents);
    ExitStatus SignTree(const TreeContents& contents);
    QString StagedPath(const QString& name) const;
    bool Place(const SignedSums& sums, QString& error);
    ExitStatus Refuse();

    SignSettings settings;
    Problems problems;
    ProgressMeter progress;
    SecretKey key;
};

} // namespace publish
