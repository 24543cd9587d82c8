#pragma once

#include "exitstatus.h"
#include "server/servertree.h"

#include <QDateTime>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

namespace publish {

struct ListSettings
{
    QString serverTree; //!< directory that holds the builds
};

/** What `list` found. */
struct ListResult
{
    struct Row
    {
        Build build;
        QString problem;     //!< why no client can use it; empty when one can
        QDateTime published; //!< UTC; invalid without a manifest
        qsizetype files = 0;
        qsizetype links = 0;
        quint64 bytes = 0;     //!< of the files, as clients see them
        quint64 diskBytes = 0; //!< on the disk, in files that no other build shares
        bool offered = false;
        bool promotable = false; //!< its version can be offered: everything has it
        bool notes = false;
    };

    QString offered;        //!< empty when no version is
    QList<Row> rows;        //!< by package, platform and version
    QStringList promotable; //!< in version order

    QStringList Lines() const;
    QJsonObject ToJson() const;
};

/** Tells what a server tree holds. Reads only, and waits for nobody. */
class ListCommand
{
public:
    explicit ListCommand(const ListSettings& settings);

    /** Does it all, with messages on stderr. */
    ExitStatus Run();
    const ListResult& Result() const { return result; }

private:
    Q_DISABLE_COPY(ListCommand)

    ListResult::Row RowOf(const Build& build) const;

    ListSettings settings;
    ServerTree server;
    ListResult result;
};

} // namespace publish
