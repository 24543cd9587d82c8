#pragma once

#include "filereader.h"
#include "output/progress.h"
#include "server/publishedfiles.h"
#include "treecheck.h"

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>

#include <vector>

namespace publish {

class Problems;

/** What has become of the files of a tree. */
struct CopyTotals
{
    quint64 bytes = 0; //!< of all files
    quint64 linked = 0;
    quint64 linkedBytes = 0;
};

/**
 * Brings the files that were listed to a directory of the server, on all cores, and hashes them on
 * their way. Whatever equals a published file byte by byte becomes another name of it, where the
 * file system can do that; the digests only tell which files to compare. Modes are not copied: what
 * clients download must be readable for the web server.
 *
 * Each file has to be as it was listed when it is opened, and when it has been read. Where the
 * times of a file are too young to show another write, its bytes are compared with its copy at the
 * end.
 */
class TreeCopy
{
public:
    enum Result { Complete, Changed, Failed, Interrupted };

    /**
     * From the directory `source` into the existing, empty directory `destination`; into nothing
     * when that is empty. `digests`: those that are made of each file. The other arguments are not
     * owned and stay as they are meanwhile.
     */
    TreeCopy(const QString& source, const QString& destination, const TreeContents& contents,
             Digests digests, const PublishedFiles& published, ProgressMeter* progress);

    /**
     * Copies and brings everything to the disk. What has changed is reported as problems, what
     * cannot be linked to as warnings, a failure as `error`.
     */
    Result Run(Problems* problems, QString& error);

    /** MD5 digests as hexadecimal digits by file name, once Run() is Complete. */
    QMap<QString, QByteArray> Md5Digests() const;
    /** SHA-256 digests likewise; empty when they were not asked for. */
    QMap<QString, QByteArray> Sha256Digests() const;
    CopyTotals Totals() const;

private:
    /** One file; each has its own, and one thread works on it at a time. */
    struct Item
    {
        QString name;
        TreeFile file;
        ReadResult result;
        QByteArray digest; // MD5
        QByteArray sha256;
        QStringList warnings;
        QString linkError;
        bool copied = false;
        bool linked = false;
    };
    enum class Try { Linked, Next, NoLinks, Ended };
    using Work = void (TreeCopy::*)(Item& item, ReadBuffers& buffers);

    Result RunPass(Progress::Step step, const std::vector<Item*>& work, Work function,
                   Problems* problems, QString& error);
    Result Outcome(Problems* problems, QString& error);
    void HashOrCopy(Item& item, ReadBuffers& buffers);
    void LinkOrCompare(Item& item, ReadBuffers& buffers);
    void CompareWithCopy(Item& item, ReadBuffers& buffers);
    bool Link(Item& item, ReadBuffers& buffers);
    Try TryPlace(Item& item, const PublishedFiles::Place& place, ReadBuffers& buffers);
    QString PlaceProblem(const Item& item, const PublishedFiles::Place& place) const;
    void CopyHashed(Item& item, ReadBuffers& buffers);
    FileReader Reader(const Item& item, ReadBuffers& buffers) const;
    QString CopyPath(const Item& item) const;
    bool IsDry() const;
    void WarnOfPlaces(Problems* problems) const;
    bool Prepare(QString& error);
    bool SyncAll(QString& error);
    bool SyncEach(QString& error);

    QString source;
    QString destination;
    const TreeContents& contents;
    Digests digests;
    const PublishedFiles& published;
    ProgressMeter* progress;
    std::vector<Item> items; // in the order of their names
    QStringList directories; // made, parents first, without the destination itself
    int freshMode = 0;       // of a file that is made here
};

} // namespace publish
