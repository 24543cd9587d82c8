#pragma once

#include "network/networkmonitor.h"

#include <kxupdater/iupdater.h>

#include <QObject>

#include <memory>

/**
 * The updater and what it needs, for one session or for one after the other. Owner thread only.
 */
class UpdaterHost : public QObject
{
    Q_OBJECT
public:
    explicit UpdaterHost(const Options& options, QObject* parent = nullptr);
    ~UpdaterHost() override;

    NetworkMonitor manager;
    const std::unique_ptr<updater::IUpdater> updater;

Q_SIGNALS:
    /** The updater's own, before it acts upon it: whoever connects to the updater itself while it
     *  runs hears of an error after the failure that it leads to. */
    void error(int code, const QString& text);

private:
    Q_DISABLE_COPY(UpdaterHost)
};
