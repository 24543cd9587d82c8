#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QMap>
#include <QRandomGenerator>
#include <QString>
#include <QStringList>

namespace kxtest {

/** What a server does next on a connection. */
struct ChaosStep
{
    enum Kind {
        Send,  //!< writes `bytes` and waits until the system has them
        Pause, //!< is silent for `milliseconds`
        Hold,  //!< is silent until the client gives up
        Close, //!< ends the connection in good order
        Reset, //!< resets the connection
    };

    Kind kind = Send;
    QByteArray bytes;
    int milliseconds = 0;
};

/** How one request is answered. A connection whose steps do not end it waits for the next one. */
struct ChaosAnswer
{
    QString fault; //!< name of what goes wrong; empty when nothing does
    QList<ChaosStep> steps;
    int downtimeMs = 0; //!< the port is closed, and all connections cut, for so long
};

/** One request, as far as answers depend on it. */
struct ChaosRequest
{
    QString path;
    qint64 rangeBegin = -1; //!< of "Range: bytes=N-"; -1 when there is none
};

/**
 * Answers requests for the files below a directory, some of them wrongly. What goes wrong is
 * decided by the seed, the path, and how often the path has been asked for: not by the order in
 * which requests of several connections arrive.
 *
 * What it sends for a path that ends in ".xml" may be cut or malformed, but never is another
 * well-formed text: only a signature could tell that one.
 */
class ChaosPlan
{
public:
    explicit ChaosPlan(const QString& directory);

    struct Settings
    {
        quint32 seed = 0;
        int percent = 0;    //!< of the requests that are answered wrongly
        int timeoutMs = 0;  //!< of the client: pauses are shorter, most of them much shorter
        bool holds = true;  //!< whether silences may last until the client gives up
        QStringList faults; //!< names of those to choose from; empty: all
    };
    void SetSettings(const Settings& newSettings);
    /** Names of all faults. */
    static QStringList AllFaults();

    ChaosAnswer Answer(const ChaosRequest& request, const QString& baseUrl);

    /** "PATH (n-th request): FAULT" of each wrong answer since SetSettings(). */
    const QStringList& Happened() const { return happened; }
    /** How often each fault has been chosen since the plan was made. */
    const QMap<QString, int>& Counts() const { return counts; }

private:
    QString directory;
    Settings settings;
    QHash<QString, int> requests; // by path
    QStringList happened;
    QMap<QString, int> counts;
};

} // namespace kxtest
