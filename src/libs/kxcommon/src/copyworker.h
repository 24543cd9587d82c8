#pragma once

#include "fileworker.h"

#include <QString>

#include <vector>

namespace common {

/** The run of a FileCopier. */
class CopyWorker : public FileWorker
{
    Q_OBJECT
public:
    enum class Kind { File, Symlink, Directory };

    explicit CopyWorker(QObject* parent);
    ~CopyWorker() override;

    /** Before Start() only. */
    void Add(Kind kind, const QString& source, const QString& destination);
    void SetDestinationRoot(const QString& root);

private:
    struct Job
    {
        Kind kind;
        QString source;
        QString destination;
    };

    Failure Work() override;
    std::uint64_t Count(const Job& job) const;
    Failure Carry(const Job& job);
    Failure CopySingle(const Job& job);
    QString Violation(const QString& destination) const;

    // Set before the start, read by the worker.
    std::vector<Job> jobs;
    QString destinationRoot;
};

} // namespace common
