#pragma once

#include "httpfetch.h"

#include <kxcommon/ihttprequest.h>

namespace common::http {

/** The request that CreateHttpRequest() makes. */
class HttpRequest : public IHttpRequest
{
    Q_OBJECT
public:
    HttpRequest(QNetworkAccessManager* manager, QObject* parent);
    ~HttpRequest() override;

    void SetUrl(const QUrl& newUrl) override { url = newUrl; }
    QUrl Url() const override { return url; }
    void SetIntParameter(int seconds) override { timeout = seconds; }
    int IntParameter() const override { return timeout; }
    bool Send() override;
    bool IsRunning() override { return running; }
    void SetBoolParameter(bool alwaysAskNetwork) override { askNetwork = alwaysAskNetwork; }
    bool BoolParameter() const override { return askNetwork; }
    void Abort() override;

private:
    Q_DISABLE_COPY(HttpRequest)

    void OnHead();
    void OnData();
    void OnEnded();
    bool Take();
    void Fail(int code, const QString& reason);
    void FailTooLarge();

    // Settings of the next send.
    QUrl url;
    int timeout = 30;
    bool askNetwork = false;

    // The running request.
    HttpFetch fetch;
    QUrl sentUrl;
    QByteArray body;
    bool running = false;
};

} // namespace common::http
