#pragma once

#include "fileworker.h"

#include <QString>
#include <QStringList>

namespace common {

/** The run of a FileRemover. */
class RemoveWorker : public FileWorker
{
    Q_OBJECT
public:
    explicit RemoveWorker(QObject* parent);
    ~RemoveWorker() override;

    /** Before Start() only. */
    void AddDirectory(const QString& path);

private:
    Failure Work() override;
    std::uint64_t Count(const QString& path) const;
    Failure RemoveDirectory(const QString& path);

    // Set before the start, read by the worker.
    QStringList paths;
    QString home;
};

} // namespace common
