#include <kxcommon/ifiledownload.h>

namespace common::http {

IFileDownload::IFileDownload(QObject* parent) : QObject(parent) {}

IFileDownload::~IFileDownload() = default;

} // namespace common::http
