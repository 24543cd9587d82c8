#pragma once

#include "nginxserver.h"
#include "updatesite.h"

/**
 * A site whose server is the real nginx and slow: version 2.0 has two large files among small ones,
 * and its download takes two seconds or more.
 */
class ThrottledSite
{
public:
    ThrottledSite();

    /** Starts the server and publishes version 2.0; why it could not, else empty. */
    QString Start();
    UpdateSite& Site() { return site; }
    QStringList Update(const QStringList& more = {}) const;
    /** Of the files that an update from nothing fetches. */
    qint64 Bytes() const { return bytes; }
    int Files() const { return files; }

private:
    UpdateSite site;
    kxtest::NginxServer server;
    qint64 bytes = 0;
    int files = 0;
};
