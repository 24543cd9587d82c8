#include "configfile.h"

#include "fileowner.h"
#include "paths.h"

#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStringDecoder>

namespace {

constexpr qint64 mostBytes = 1024 * 1024;
const QByteArray byteOrderMark("\xef\xbb\xbf");
// A publisher who changes keys has two for a while.
const QString repeatable = QStringLiteral("key");

// Letter for letter: a decoder without the flag drops a mark of byte order at the beginning.
QString Decoded(const QByteArray& bytes)
{
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless |
                                                     QStringDecoder::Flag::ConvertInitialBom);
    return decoder.decode(bytes);
}

bool IsBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r';
}

bool HasControlCharacter(const QString& text)
{
    for (const QChar c : text) {
        if (c.category() == QChar::Other_Control)
            return true;
    }
    return false;
}

QString Quoted(const QString& text)
{
    return QStringLiteral("'%1'").arg(text);
}

} // namespace

QStringList ConfigFile::Keys()
{
    return {QStringLiteral("url"),
            QStringLiteral("package"),
            QStringLiteral("version"),
            QStringLiteral("app"),
            QStringLiteral("download"),
            QStringLiteral("xml"),
            QStringLiteral("proxy"),
            QStringLiteral("ca-file"),
            QStringLiteral("timeout"),
            QStringLiteral("interval"),
            repeatable,
            QStringLiteral("allow-downgrade"),
            QStringLiteral("refuse-running")};
}

ConfigFile::Entry ConfigFile::First(const char* key) const
{
    return entries.value(QLatin1String(key)).value(0);
}

qsizetype ConfigFile::LineCount() const
{
    qsizetype count = 0;
    for (const QList<Entry>& lines : entries)
        count += lines.size();
    return count;
}

QString ConfigFile::Value(const char* key) const
{
    return First(key).value;
}

QStringList ConfigFile::Values(const char* key) const
{
    QStringList values;
    for (const Entry& entry : entries.value(QLatin1String(key)))
        values.append(entry.value);
    return values;
}

QString ConfigFile::Where(const char* key, qsizetype index) const
{
    return QStringLiteral("%1:%2: %3")
        .arg(path)
        .arg(entries.value(QLatin1String(key)).value(index).line)
        .arg(QLatin1String(key));
}

QString ConfigFile::Directory() const
{
    return QFileInfo(path).absolutePath();
}

QString ConfigFile::Load(const QString& file)
{
    path = file;
    QByteArray bytes;
    const QString problem = Read(path, bytes);
    return problem.isEmpty() ? Parse(bytes) : problem;
}

QString ConfigFile::Read(const QString& file, QByteArray& bytes) const
{
    const QFileInfo info(file);
    if (!info.exists())
        return QStringLiteral("the configuration '%1' does not exist").arg(file);
    if (!info.isFile())
        return QStringLiteral("the configuration '%1' is not a regular file").arg(file);
    QFile source(file);
    if (!source.open(QIODevice::ReadOnly))
        return QStringLiteral("cannot read the configuration '%1': %2")
            .arg(file, source.errorString());
    bytes = source.read(mostBytes + 1);
    if (bytes.size() > mostBytes)
        return QStringLiteral("the configuration '%1' is larger than %2 bytes")
            .arg(file)
            .arg(mostBytes);
    return QString();
}

QString ConfigFile::Parse(const QByteArray& bytes)
{
    entries.clear();
    qsizetype begin = bytes.startsWith(byteOrderMark) ? byteOrderMark.size() : 0;
    for (int number = 1; begin < bytes.size(); ++number) {
        qsizetype end = bytes.indexOf('\n', begin);
        if (end < 0)
            end = bytes.size();
        const QString problem = ParseLine(bytes.mid(begin, end - begin), number, begin);
        if (!problem.isEmpty())
            return QStringLiteral("%1:%2: %3").arg(path).arg(number).arg(problem);
        begin = end + 1;
    }
    return QString();
}

QString ConfigFile::ParseLine(const QByteArray& line, int number, qsizetype begin)
{
    const QByteArray trimmed = line.trimmed();
    if (trimmed.isEmpty() || trimmed.startsWith('#') || trimmed.startsWith(';'))
        return QString();
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString text = decoder.decode(trimmed);
    if (decoder.hasError())
        return QStringLiteral("the line is not UTF-8");
    const qsizetype equals = line.indexOf('=');
    // The line itself is not quoted: it may hold a password.
    if (equals < 0)
        return trimmed.startsWith('[')
                   ? QStringLiteral("%1: there are no sections here").arg(Quoted(text))
                   : QStringLiteral("the line is neither 'key = value' nor a comment");

    const QString key = Decoded(line.left(equals).trimmed());
    if (!Keys().contains(key))
        return QStringLiteral("unknown key %1; known are %2")
            .arg(Quoted(key), Keys().join(QStringLiteral(", ")));
    if (entries.contains(key) && key != repeatable)
        return QStringLiteral("%1 stands in line %2 already")
            .arg(Quoted(key))
            .arg(entries.value(key).constFirst().line);

    qsizetype first = equals + 1;
    qsizetype last = line.size();
    while (first < last && IsBlank(line.at(first)))
        ++first;
    while (last > first && IsBlank(line.at(last - 1)))
        --last;
    const Entry entry = {Decoded(line.mid(first, last - first)), number, begin + first,
                         last - first};
    if (entry.value.isEmpty())
        return QStringLiteral("%1 has no value").arg(Quoted(key));
    if (HasControlCharacter(entry.value))
        return QStringLiteral("the value of %1 holds a control character").arg(Quoted(key));
    entries[key].append(entry);
    return QString();
}

QString ConfigFile::ReplaceProblem(const QString& path)
{
    const QString target = QFileInfo(path).canonicalFilePath();
    if (!QFileInfo(target).isWritable())
        return QStringLiteral("The configuration '%1' cannot be written, and the new version "
                              "belongs into it.")
            .arg(path);
    const QString directory = QFileInfo(target).absolutePath();
    const QString problem = WriteProblem(directory);
    if (problem.isEmpty())
        return QString();
    return QStringLiteral("The directory '%1' cannot be written (%2): the configuration '%3' is "
                          "replaced there to hold the new version.")
        .arg(directory, problem, path);
}

QString ConfigFile::SetVersion(const QString& path, const QString& version)
{
    const QString what = QStringLiteral("The version '%1' cannot be written to '%2': ");
    const auto problem = [&](const QString& reason) {
        return what.arg(version, path) + reason + QLatin1Char('.');
    };

    // As it is now: somebody may have edited it since the start.
    ConfigFile before;
    QByteArray bytes;
    QString reason = before.Read(path, bytes);
    before.path = path;
    if (reason.isEmpty())
        reason = before.Parse(bytes);
    if (!reason.isEmpty())
        return problem(reason);
    if (before.Value("version") == version)
        return QString();

    if (before.Has("version")) {
        const Entry entry = before.First("version");
        bytes.replace(entry.begin, entry.size, version.toUtf8());
    } else {
        const QByteArray end = bytes.contains("\r\n") ? "\r\n" : "\n";
        if (!bytes.isEmpty() && !bytes.endsWith('\n'))
            bytes += end;
        bytes += "version = " + version.toUtf8() + end;
    }
    // The text comes from the server: it must be one value, and no second line.
    ConfigFile after;
    after.path = path;
    if (!after.Parse(bytes).isEmpty() || after.Value("version") != version ||
        after.LineCount() != before.LineCount() + (before.Has("version") ? 0 : 1))
        return problem(QStringLiteral("it cannot stand in such a file"));

    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return problem(file.errorString());
    KeepOwner(QFileInfo(path).canonicalFilePath(), file);
    if (!Commit(file, bytes))
        return problem(file.errorString());
    return QString();
}
