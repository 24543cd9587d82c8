#pragma once

#include "exitstatus.h"
#include "server/manifest.h"
#include "server/servertree.h"

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

namespace publish {

struct DiffSettings
{
    QString serverTree; //!< directory that holds the builds
    QString from;       //!< version that the client has
    QString to;         //!< version that it is updated to
    QString package;    //!< empty: the only one of the tree
    QString platform;   //!< empty: the only one of the package
    bool all = false;   //!< lists all files, not only the largest
};

/** What an update from one build to another does on a client. */
struct DiffResult
{
    enum Kind { Download, Copy, Link, Drop };
    enum Cause {
        Unchanged, //!< the same in both builds
        New,       //!< no entry of that name before
        Changed,   //!< an entry of that name before, with other contents or another kind
        Moved,     //!< no entry of that name before, but a file with the same contents
        Gone,      //!< no entry of that name afterwards
    };
    struct Entry
    {
        Kind kind;
        Cause cause;
        QString name;
        quint64 bytes;  //!< of the file; of a link its target's length
        quint64 before; //!< bytes of the file that is replaced
        QString origin; //!< of a moved file: its name before
    };
    struct Sum
    {
        qsizetype count = 0;
        quint64 bytes = 0;
    };
    struct ModeChange
    {
        QString name;
        QString before;
        QString after;
    };

    Build from;
    Build to;
    QList<Entry> entries;    //!< downloads, links, drops and copies; largest first, then by name
    QList<ModeChange> modes; //!< of files that are the same otherwise
    QString programBefore;
    QString programAfter;
    qsizetype listed = 0; //!< entries that Lines() shows

    Sum SumOf(Kind kind) const;
    Sum SumOf(Kind kind, Cause cause) const;
    QStringList Lines() const;
    /** All entries but the copies, whatever is listed in lines. */
    QJsonObject ToJson() const;
};

/** The update from `before` to `after`, planned by the rule that clients follow. */
DiffResult PlanUpdate(const Manifest& before, const Manifest& after);

/** Tells what a client with one published version does to have another. Reads only. */
class DiffCommand
{
public:
    explicit DiffCommand(const DiffSettings& settings);

    /** Does it all, with messages on stderr. */
    ExitStatus Run();
    const DiffResult& Result() const { return result; }

private:
    Q_DISABLE_COPY(DiffCommand)

    bool ChoosePlace(Build& build) const;
    bool Read(const Build& build, Manifest& manifest) const;

    DiffSettings settings;
    ServerTree server;
    DiffResult result;
};

} // namespace publish
