#pragma once

#include <kxupdater/file.h>

#include <QString>

/**
 * What the runs on a download directory remember, in a file beside it: how the last one ended, and
 * how often a watch has tried the version that is offered. Written by whoever holds the directory's
 * lock. Problems are empty for success.
 */
class RunRecord
{
public:
    /** `path`: need not exist; what is not understood there counts as nothing. */
    explicit RunRecord(const QString& path);

    /** The last run's result, the version it was about, and its end in UTC; empty when unknown. */
    QString Result() const { return result; }
    QString Version() const { return version; }
    QString Time() const { return time; }
    /** Attempts on any version that are still held against it. */
    int Attempts() const { return attempts; }
    /** Attempts on the one that `key` stands for. */
    int Attempts(const QString& key) const { return key == attemptKey ? attempts : 0; }

    QString SetResult(const QString& word, const QString& version);
    QString SetAttempts(const QString& key, int count);
    QString ClearAttempts();

    /** What stands for a version and its manifest, in every process the same. */
    static QString Key(const QString& version, const updater::FileList& manifest);

private:
    void Load();
    QString Store() const;

    QString path;
    QString result;
    QString version;
    QString time;
    QString attemptKey;
    int attempts = 0;
};
