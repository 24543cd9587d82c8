#pragma once

#include "exitstatus.h"
#include "output/problems.h"
#include "signing/secretbytes.h"

#include <QString>

namespace publish {

struct KeygenSettings
{
    QString secretFile;     //!< to be made, for its owner's eyes alone
    QString publicFile;     //!< to be made
    QString passphraseFile; //!< empty: asked for on the terminal, unless there is to be none
    bool noPassphrase = false;
};

/** Makes a key pair for signing. Files that are there stay as they are: a key is irreplaceable. */
class KeygenCommand
{
public:
    explicit KeygenCommand(const KeygenSettings& settings);

    /** Does it all, with messages on stderr and the result on stdout. */
    ExitStatus Run();

private:
    Q_DISABLE_COPY(KeygenCommand)

    void CheckPlaces();
    void TakePassphrase();
    ExitStatus MakeFiles();
    ExitStatus Refuse();

    KeygenSettings settings;
    Problems problems;
    SecretBytes passphrase;
};

} // namespace publish
