#pragma once

#include "randomtree.h"
#include "updaterun.h"

#include <QString>
#include <QStringList>

namespace kxtest {

/**
 * What one round works on, below a directory that it is given: the server's files in "www", the
 * application alone in "place", the download directory alone in "work". So everything that an
 * update leaves beside a tree is seen.
 */
class CampaignSite
{
public:
    explicit CampaignSite(const QString& root);

    QString Server() const { return root + QStringLiteral("/www"); }
    QString Application() const { return root + QStringLiteral("/place/app"); }
    QString Download() const { return root + QStringLiteral("/work/next"); }

    /** Offers the tree as this version, with addresses below `url`. */
    void Publish(const campaign::RandomTree& tree, const QString& version, const QString& url);
    /** Puts the tree where the application stands, in place of what was there. */
    void Install(const campaign::RandomTree& tree);
    UpdatePlaces Places(const QString& url, const QString& current) const;

    /** What is not as it should be: the application is not `lines`, or there is something beside
     *  it. Empty when all is well. */
    QString ApplicationProblem(const QStringList& lines) const;
    /** The same, or there is something beside the download directory. */
    QString Problem(const QStringList& lines) const;
    /** What stands beside the application or the download directory; empty when nothing does. */
    QString BesideProblem() const;

    static const QString package;

private:
    QString root;
};

/** The first lines that only one of the two has, for a message. */
QString Differences(const QStringList& found, const QStringList& expected);

/** Shrinks the timeouts and pauses of the library while it lives: what lasts 30 seconds then lasts
 *  `TimeoutMs()`. Made and gone only while there are no transfers. */
class ShortTimeouts
{
public:
    explicit ShortTimeouts(int unitMs);
    ~ShortTimeouts();

    /** Milliseconds of silence after which a request is given up. */
    int TimeoutMs() const;

private:
    Q_DISABLE_COPY(ShortTimeouts)

    int unitMs;
    int retryDelay;
};

} // namespace kxtest
