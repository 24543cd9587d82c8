#pragma once

#include <QSet>
#include <QString>
#include <QThread>

#include <atomic>

namespace updater {

/**
 * Removes the unfinished downloads of earlier runs from a directory tree, on a thread of its own:
 * they are hidden, so that no scan sees them, but a copy of the tree would carry them along.
 * Never follows a link. QThread::finished() tells the end; deleting the object stops it and waits.
 */
class PartialSweep : public QThread
{
    Q_OBJECT
public:
    /** `keep` holds the cleaned paths of the partial files that stay, below the cleaned `root`. */
    PartialSweep(const QString& root, const QSet<QString>& keep);
    ~PartialSweep() override;

    /** After finished(): true when no other partial file is left. */
    bool Succeeded() const;

protected:
    void run() override;

private:
    Q_DISABLE_COPY(PartialSweep)

    const QString root;
    const QSet<QString> keep;
    std::atomic<bool> clean{false};
};

} // namespace updater
