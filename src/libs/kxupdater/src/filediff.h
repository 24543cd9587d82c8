#pragma once

#include <kxupdater/file.h>

namespace updater {

// Set operations on file lists. Two records are one key only when they are equal and their digest
// texts are the same letter for letter: equality alone ignores the case of the digest while the
// hash does not, and a hashed set would then decide by the luck of its seed. Results keep the order
// of the first list and hold each key once.

/** The records of `from` that `without` does not have. */
FileList Difference(const FileList& from, const FileList& without);

/** The records of `of` that `with` has too. */
FileList Intersection(const FileList& of, const FileList& with);

} // namespace updater
