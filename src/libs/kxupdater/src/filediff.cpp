#include "filediff.h"

#include <QSet>

namespace updater {
namespace {

/** A record of a list that outlives the key, with the identity that set operations need. */
struct Key
{
    const File* file;

    bool operator==(const Key& other) const
    {
        return *file == *other.file && file->MD5() == other.file->MD5();
    }
};

size_t qHash(const Key& key, size_t seed = 0)
{
    return updater::qHash(*key.file, seed);
}

QSet<Key> Keys(const FileList& files)
{
    QSet<Key> keys;
    keys.reserve(files.size());
    for (const File& file : files)
        keys.insert(Key{&file});
    return keys;
}

/** The records of `files` that are in `keys`, or those that are not. */
FileList Select(const FileList& files, QSet<Key> keys, bool contained)
{
    FileList selected;
    for (const File& file : files) {
        const Key key{&file};
        if (keys.contains(key) != contained)
            continue;
        selected.append(file);
        // Once each: the key changes sides.
        if (contained)
            keys.remove(key);
        else
            keys.insert(key);
    }
    return selected;
}

} // namespace

FileList Difference(const FileList& from, const FileList& without)
{
    return Select(from, Keys(without), false);
}

FileList Intersection(const FileList& of, const FileList& with)
{
    return Select(of, Keys(with), true);
}

} // namespace updater
