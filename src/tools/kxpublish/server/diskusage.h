#pragma once

#include <QHash>
#include <QPair>
#include <QString>

namespace publish {

/** What a file takes on the disk. */
struct DiskFile
{
    QPair<quint64, quint64> identity; //!< volume and number; equal for all names of one file
    quint64 names = 1;                //!< how many names the file has, here and elsewhere
    quint64 bytes = 0;                //!< room that it takes
};

/** Looks at the file `path`, without following a link; false when there is none. Where the system
 *  does not tell, a file has one name and takes its size. */
bool LookAtFile(const QString& path, DiskFile& file);

/**
 * Room that a set of directories takes on the disk. Builds may share files through hard links, so a
 * file counts as own only when all its names are in the set: that is what removing it sets free.
 */
class DiskUsage
{
public:
    /** Adds everything below `path`, links never followed. */
    void Add(const QString& path);
    /** Bytes of files that have no name outside of what was added. */
    quint64 OwnBytes() const;

private:
    struct Seen
    {
        quint64 namesHere = 0;
        DiskFile file;
    };

    QHash<QPair<quint64, quint64>, Seen> files;
};

} // namespace publish
