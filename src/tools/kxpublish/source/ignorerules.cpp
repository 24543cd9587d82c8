#include "ignorerules.h"

#include "output/console.h"

namespace publish {
namespace {

// Blanks at the end do not count, unless a backslash stands before them.
void TrimEnd(QByteArray& line)
{
    qsizetype end = 0;
    for (qsizetype i = 0; i < line.size(); ++i) {
        if (line.at(i) == '\\')
            ++i;
        else if (line.at(i) == ' ')
            continue;
        end = i + 1;
    }
    line.truncate(end);
}

} // namespace

QString IgnoreRule::Shown() const
{
    return source.isEmpty() ? QStringLiteral("--exclude ") + publish::Shown(text)
                            : QStringLiteral("%1, line %2 of %3")
                                  .arg(publish::Shown(text))
                                  .arg(line)
                                  .arg(publish::Shown(source));
}

void IgnoreRules::AddFile(const QByteArray& directory, const QString& source,
                          const QByteArray& text, QStringList& doubts)
{
    IgnoreRule rule;
    rule.source = source;
    rule.directory = directory;
    const QByteArray plain = text.startsWith("\xef\xbb\xbf") ? text.mid(3) : text;
    for (QByteArray line : plain.split('\n')) {
        ++rule.line;
        if (line.endsWith('\r'))
            line.chop(1);
        if (line.startsWith('#'))
            continue;
        TrimEnd(line);
        if (!line.isEmpty() && !AddLine(line, rule))
            doubts.append(QStringLiteral("line %1, %2").arg(rule.line).arg(publish::Shown(line)));
    }
}

QString IgnoreRules::AddOption(const QByteArray& pattern)
{
    QByteArray line = pattern;
    TrimEnd(line);
    if (line.isEmpty())
        return QStringLiteral("is empty");
    if (line.startsWith('#'))
        return QStringLiteral("is a comment; a name that begins with '#' is written '\\#'");
    return AddLine(line, {}) ? QString() : QStringLiteral("can match no name");
}

bool IgnoreRules::AddLine(QByteArray line, IgnoreRule rule)
{
    rule.text = line;
    if (line.startsWith('!')) {
        rule.takesIn = true;
        line.remove(0, 1);
    }
    if (line.endsWith('/')) {
        rule.directoriesOnly = true;
        line.chop(1);
    }
    rule.namesOnly = !line.contains('/');
    if (line.startsWith('/'))
        line.remove(0, 1);
    rule.glob = Glob(line);
    if (line.isEmpty() || !rule.glob.IsValid())
        return false;
    rules.push_back(rule);
    return true;
}

size_t IgnoreRules::Mark() const
{
    return rules.size();
}

void IgnoreRules::Restore(size_t mark)
{
    rules.resize(mark);
}

const IgnoreRule* IgnoreRules::Match(const QByteArray& path, bool isDirectory) const
{
    const QByteArrayView name = QByteArrayView(path).sliced(path.lastIndexOf('/') + 1);
    for (auto rule = rules.rbegin(); rule != rules.rend(); ++rule) {
        if (rule->directoriesOnly && !isDirectory)
            continue;
        const qsizetype above = rule->directory.isEmpty() ? 0 : rule->directory.size() + 1;
        const QByteArrayView below = QByteArrayView(path).sliced(above);
        if (!rule->glob.Matches(rule->namesOnly ? name : below))
            continue;
        rule->used = true;
        return rule->takesIn ? nullptr : &*rule;
    }
    return nullptr;
}

QList<QByteArray> IgnoreRules::UnusedOptions() const
{
    QList<QByteArray> unused;
    for (const IgnoreRule& rule : rules) {
        if (rule.source.isEmpty() && !rule.used)
            unused.append(rule.text);
    }
    return unused;
}

} // namespace publish
