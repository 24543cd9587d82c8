#include "workload.h"

#include <treebuilder.h>

#include <QDir>
#include <QEventLoop>
#include <QProcess>
#include <QRandomGenerator>

#include <map>
#include <memory>
#include <utility>

namespace kxbench {
namespace {

QString baseDirectory = QDir::tempPath();

/** Ends the process when what is measured does not work. */
class Failure : public QObject
{
    Q_OBJECT
public Q_SLOTS:
    void End() { qFatal("what is measured has failed"); }
};

QString NameOf(qint64 index)
{
    return QStringLiteral("d%1/f%2.bin").arg(index / 100).arg(index);
}

} // namespace

void SetBaseDirectory(const QString& path)
{
    baseDirectory = path;
}

Workspace::Workspace() : directory(baseDirectory + QStringLiteral("/kxbench-XXXXXX")) {}

void MakeTree(const QString& root, qint64 count, qint64 size, quint32 seed)
{
    kxtest::TreeBuilder tree(root);
    for (qint64 i = 0; i < count; ++i)
        tree.RandomFile(NameOf(i), size, seed + static_cast<quint32>(i));
}

QString SharedTree(qint64 count, qint64 size)
{
    static std::map<std::pair<qint64, qint64>, std::unique_ptr<Workspace>> trees;
    std::unique_ptr<Workspace>& workspace = trees[{count, size}];
    const bool isNew = !workspace;
    if (isNew)
        workspace = std::make_unique<Workspace>();
    const QString root = workspace->Path(QStringLiteral("tree"));
    if (isNew) {
        MakeTree(root, count, size);
        RunPeer(QStringLiteral("sync"), {QStringLiteral("-f"), root});
    }
    return root;
}

void ChangeTree(const QString& root, qint64 count, qint64 size, qint64 step)
{
    kxtest::TreeBuilder tree(root);
    for (qint64 i = 0; i < count; i += step)
        tree.RandomFile(NameOf(i), size, 0x80000000u + static_cast<quint32>(i));
}

updater::FileList MakeRecords(qint64 count, quint32 seed)
{
    QRandomGenerator random(seed);
    updater::FileList records;
    records.reserve(count);
    for (qint64 i = 0; i < count; ++i) {
        QString md5;
        for (int word = 0; word < 4; ++word)
            md5 += QStringLiteral("%1").arg(random.generate(), 8, 16, QLatin1Char('0'));
        records.append(updater::File(NameOf(i), md5, random.bounded(1 << 20),
                                     QStringLiteral("-rw-r--r--"), QString()));
    }
    return records;
}

void RunPeer(const QString& program, const QStringList& arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.setStandardOutputFile(QProcess::nullDevice());
    process.start(program, arguments);
    process.waitForFinished(-1);
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
        qFatal("%s failed", qPrintable(program));
}

void WaitFor(QObject* sender, const char* done, const char* failed)
{
    QEventLoop loop;
    QObject::connect(sender, done, &loop, SLOT(quit()));
    Failure failure;
    QObject::connect(sender, failed, &failure, SLOT(End()));
    loop.exec();
}

} // namespace kxbench

#include "workload.moc"
