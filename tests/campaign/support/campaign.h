#pragma once

#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

#include <atomic>
#include <memory>

class QTemporaryDir;

namespace campaign {

/** How a campaign program is to run: what its command line says. */
struct Options
{
    bool isLong = false; //!< every point, not a sample of them
    quint32 seed = 1;    //!< decides everything that is random
    int rounds = 0;      //!< how many; 0: as many as the program's short or long form has
    bool keep = false;   //!< leave the directories of failed rounds where they are

    /** `rounds`, or the number of the present form. */
    int Rounds(int ofShort, int ofLong) const;
    /** A seed of its own for each round, the option's for the first: "--seed" with it and
     *  "--rounds 1" repeats the round. */
    quint32 SeedOf(int round) const { return seed + static_cast<quint32>(round); }

    /** Reads "--short", "--long", "--seed N", "--rounds N", "--keep". Why it could not; empty when
     *  it could. `arguments`: without the program's name. */
    QString Read(const QStringList& arguments);
};

/**
 * One run of a campaign program: reads the command line, keeps the figures, and ends with a status.
 *
 *     campaign::Campaign campaign(argc, argv);
 *     for (int round = 0; round < campaign.Given().Rounds(20, 1000); ++round)
 *         if (...) campaign.Fail(seed, "call 17, after it", "the application is missing lib/x");
 *     campaign.Figure("kills", kills);
 *     return campaign.End();
 *
 * A wrong command line ends the program with status 2. Not to be made twice; one thread at a time,
 * except for Failures() and IsEnough().
 */
class Campaign
{
public:
    Campaign(int argc, char** argv);
    ~Campaign();

    const Options& Given() const { return options; }

    /** A failure: printed at once, with what repeats it. `seed` of the round; `point` where in the
     *  round; `text` what was wrong. */
    void Fail(quint32 seed, const QString& point, const QString& text);
    int Failures() const { return failures; }
    /** True when there are so many failures that going on would only repeat them. */
    bool IsEnough() const { return failures >= 20; }

    /** A line "name: value" of the figures; a name that was given already gets the new value. */
    void Figure(const QString& name, const QString& value);
    void Figure(const QString& name, qint64 value);

    /** Prints the figures, and with them "seed", "form", "failures" and "seconds". Exit status: 0,
     *  or 1 after a failure. */
    int End();

    /** A new directory for a round, in memory where there is room, else where temporary files go.
     *  Removed by the next call and at the end; kept when `--keep` was given and the round failed.
     */
    QString NewDirectory();
    /** As NewDirectory(), but stays until the end: for what all rounds share. */
    QString SharedDirectory();

private:
    Q_DISABLE_COPY(Campaign)

    void DropDirectory();

    Options options;
    QString program;
    QList<QPair<QString, QString>> figures;
    std::atomic<int> failures{0};
    int failuresBefore = 0; // when the present directory was made
    qint64 started = 0;     // ms
    std::unique_ptr<QTemporaryDir> directory;
    std::unique_ptr<QTemporaryDir> shared;
};

} // namespace campaign
