#include "treereport.h"

#include <QHash>

QStringList TreeDifferences(const updater::FileList& found, const updater::FileList& manifest,
                            int limit)
{
    QHash<QString, updater::File> present;
    for (const updater::File& file : found)
        present.insert(file.Name(), file);

    QStringList lines;
    for (const updater::File& file : manifest) {
        const auto position = present.constFind(file.Name());
        if (position == present.constEnd()) {
            lines.append(QStringLiteral("missing %1").arg(file.Name()));
            continue;
        }
        // The updater takes digests letter for letter; a tree it rejects must not look right here.
        if (!(*position == file) || position->MD5() != file.MD5())
            lines.append(QStringLiteral("changed %1").arg(file.Name()));
        present.erase(position);
    }
    for (const updater::File& file : present)
        lines.append(QStringLiteral("unexpected %1").arg(file.Name()));

    lines.sort();
    const qsizetype more = lines.size() - limit;
    if (more > 0) {
        lines = lines.mid(0, limit);
        lines.append(QStringLiteral("and %1 more").arg(more));
    }
    return lines;
}
