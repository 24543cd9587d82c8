#include <kxcommon/filecopier.h>

#include "copyworker.h"

namespace common {

FileCopier::FileCopier() : worker(std::make_unique<CopyWorker>(this))
{
    connect(worker.get(), SIGNAL(succesed()), SIGNAL(succesed()));
    connect(worker.get(), SIGNAL(failed(int, const QString&)), SIGNAL(failed(int, const QString&)));
    connect(worker.get(), SIGNAL(progress(int, int)), SIGNAL(progress(int, int)));
}

FileCopier::~FileCopier() = default;

void FileCopier::AddFile(const QString& source, const QString& destination)
{
    worker->Add(CopyWorker::Kind::File, source, destination);
}

void FileCopier::AddSymlink(const QString& source, const QString& destination)
{
    worker->Add(CopyWorker::Kind::Symlink, source, destination);
}

void FileCopier::AddDirectory(const QString& source, const QString& destination)
{
    worker->Add(CopyWorker::Kind::Directory, source, destination);
}

void FileCopier::SetDestinationRoot(const QString& root)
{
    worker->SetDestinationRoot(root);
}

bool FileCopier::Copy()
{
    return worker->Start();
}

} // namespace common
