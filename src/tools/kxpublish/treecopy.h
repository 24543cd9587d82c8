#pragma once

#include <kxupdater/file.h>

#include <QMap>
#include <QSet>
#include <QString>

namespace publish {

class Problems;

/**
 * Copies the files that were scanned, and makes sure that they are still what the scan has seen:
 * each is hashed once more on its way. Links have no copy, but have to be unchanged as well.
 * Modes are not copied: what clients download must be readable for the web server.
 */
class TreeCopy
{
public:
    enum Result { Complete, Changed, Failed, Interrupted };

    /** Copies from the directory `source` into the existing, empty directory `destination`. */
    TreeCopy(const QString& source, const QString& destination);

    /**
     * Copies and brings everything to the disk. `modes` are the permission bits by file name, as
     * they were checked. What has changed is reported as problems, a failure as `error`.
     */
    Result Run(const updater::FileList& files, const QMap<QString, int>& modes, Problems* problems,
               QString& error);

private:
    Result CopyFile(const updater::File& file, int mode, QString& change, QString& error);
    bool MakeParent(const QString& path, QString& error);
    bool SyncAll(const updater::FileList& files, QString& error);

    QString source;
    QString destination;
    QSet<QString> directories; // made, without the destination itself
};

} // namespace publish
