#pragma once

#include "secretbytes.h"

#include <QString>

namespace publish {

/**
 * Reads a passphrase from a file: its only line, with or without an end. What is wrong as the end
 * of a message, or an empty text. `exposed`: others than its owner may read it.
 */
QString ReadPassphrase(const QString& path, SecretBytes* passphrase, bool* exposed);

/** Asks for a passphrase on the terminal, without showing it. Why there is none as the end of
 *  a message, or an empty text; also when the user interrupts, see IsInterrupted(). */
QString AskPassphrase(const QString& prompt, SecretBytes* passphrase);

} // namespace publish
