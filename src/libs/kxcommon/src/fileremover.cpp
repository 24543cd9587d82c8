#include <kxcommon/fileremover.h>

#include "removeworker.h"

namespace common {

FileRemover::FileRemover() : worker(std::make_unique<RemoveWorker>(this))
{
    connect(worker.get(), SIGNAL(succesed()), SIGNAL(succesed()));
    connect(worker.get(), SIGNAL(failed(int, const QString&)), SIGNAL(failed(int, const QString&)));
    connect(worker.get(), SIGNAL(progress(int, int)), SIGNAL(progress(int, int)));
}

FileRemover::~FileRemover() = default;

void FileRemover::AddDirectory(const QString& path)
{
    worker->AddDirectory(path);
}

bool FileRemover::Remove()
{
    return worker->Start();
}

} // namespace common
