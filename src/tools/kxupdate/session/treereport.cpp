#include "treereport.h"

#include <QHash>

#include <algorithm>
#include <tuple>

QList<tools::Difference> TreeDifferences(const updater::FileList& found,
                                         const updater::FileList& manifest)
{
    QHash<QString, updater::File> present;
    for (const updater::File& file : found)
        present.insert(file.Name(), file);

    QList<tools::Difference> differences;
    for (const updater::File& file : manifest) {
        const auto position = present.constFind(file.Name());
        if (position == present.constEnd()) {
            differences.append({QStringLiteral("missing"), file.Name()});
            continue;
        }
        // The updater takes digests letter for letter; a tree it rejects must not look right here.
        if (!(*position == file) || position->MD5() != file.MD5())
            differences.append({QStringLiteral("changed"), file.Name()});
        present.erase(position);
    }
    for (const updater::File& file : present)
        differences.append({QStringLiteral("unexpected"), file.Name()});

    std::sort(differences.begin(), differences.end(),
              [](const tools::Difference& a, const tools::Difference& b) {
                  return std::tie(a.kind, a.name) < std::tie(b.kind, b.name);
              });
    return differences;
}
