#pragma once

#include "publishrun.h"
#include "treebuilder.h"

#include <QString>
#include <QStringList>

namespace kxtest {

/**
 * Makes temporary directories in memory from now on, where the system has a place for that. Each
 * run waits for the disk, and hundreds of runs wait long for a busy one.
 */
void KeepTreesInMemory();

/** A server tree that kxpublish writes, and the trees that are published into it. */
class PublishSite
{
public:
    PublishSite();

    QString Server() const { return workshop.Path(QStringLiteral("srv")); }
    /** Address that builds are published with. */
    void SetBaseUrl(const QString& url) { baseUrl = url; }
    /** Tree that the next Add() publishes; has the program "app". */
    TreeBuilder& Tree() { return tree; }

    /** Publishes the tree; a failure ends the test program. */
    void Add(const QString& version, const QString& package = QStringLiteral("demo-app"),
             const QString& platform = QStringLiteral("x64"));
    /** Offers a version; a failure ends the test program. */
    void Promote(const QString& version);
    /** Another program in the tree, published and offered. */
    void Release(const QString& version);

    /** Runs "COMMAND SERVERTREE MORE". */
    PublishResult Run(const QString& command, const QStringList& more = {}) const;

    /** Path of the directory of a build, or of an entry in it. */
    QString BuildPath(const QString& version, const QString& entry = {},
                      const QString& package = QStringLiteral("demo-app"),
                      const QString& platform = QStringLiteral("x64")) const;
    /** Version in the reply that clients get. */
    QString Offered() const;
    /** Lines of the history; "(missing)" when there is none. */
    QStringList History() const;
    /** The server tree without what no client ever asks for. */
    QStringList Visible() const;

private:
    TreeBuilder tree;
    TreeBuilder workshop;
    QString baseUrl = QStringLiteral("http://updates.example/demo");
};

} // namespace kxtest
