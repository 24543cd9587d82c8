#include <kxcommon/ihttprequest.h>

namespace common::http {

IHttpRequest::IHttpRequest(QObject* parent) : QObject(parent) {}

IHttpRequest::~IHttpRequest() = default;

} // namespace common::http
