#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QString>
#include <QStringList>

/**
 * A file of settings: one "key = value" a line, in UTF-8. A line that begins with '#' or ';' is a
 * comment. The value is the rest of the line without the blanks around it, letter for letter: there
 * are no quotes, escapes, sections or continued lines, so that a path or a password means what it
 * says. One key, "key", may be given more than once. What is not understood is an error that names
 * file, line and key.
 * All answers of problems are empty for success.
 */
class ConfigFile
{
public:
    /** Reads `path`, a regular file of at most 1 MiB. */
    QString Load(const QString& path);

    bool Has(const char* key) const { return entries.contains(QLatin1String(key)); }
    /** Value of `key`; empty when the file does not have it, and never otherwise. */
    QString Value(const char* key) const;
    /** All values of a key that may be given more than once, in their order. */
    QStringList Values(const char* key) const;
    /** "FILE:LINE: key", to begin a message with; of its value number `index`. */
    QString Where(const char* key, qsizetype index = 0) const;
    /** Directory of the file; relative paths in it are meant from there. */
    QString Directory() const;

    /** All known keys. */
    static QStringList Keys();

    /** Why the file could not be replaced by a changed one. */
    static QString ReplaceProblem(const QString& path);
    /**
     * Replaces the value of "version" in the file as it is now, or appends the line. Everything
     * else stays byte for byte, and so do mode and owner as far as the system allows. The file is
     * whole at every moment; a link to it stays a link.
     */
    static QString SetVersion(const QString& path, const QString& version);

private:
    struct Entry
    {
        QString value;
        int line = 0;
        // Of the value, in bytes of the file.
        qsizetype begin = 0;
        qsizetype size = 0;
    };

    QString Read(const QString& path, QByteArray& bytes) const;
    QString Parse(const QByteArray& bytes);
    QString ParseLine(const QByteArray& line, int number, qsizetype begin);
    Entry First(const char* key) const;
    qsizetype LineCount() const;

    QString path;
    QHash<QString, QList<Entry>> entries;
};
