#include "campaign.h"

#include "treebuilder.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>

#include <cstdio>
#include <cstdlib>

namespace campaign {
namespace {

void Print(const QString& line)
{
    std::printf("%s\n", qUtf8Printable(line));
    std::fflush(stdout);
}

std::unique_ptr<QTemporaryDir> MakeDirectory()
{
    const QString memory = QStringLiteral("/dev/shm");
    const QString parent = QFileInfo(memory).isWritable() ? memory : QDir::tempPath();
    auto made = std::make_unique<QTemporaryDir>(parent + QStringLiteral("/kx-campaign-XXXXXX"));
    if (!made->isValid())
        qFatal("cannot make a directory in '%s'", qPrintable(parent));
    return made;
}

} // namespace

int Options::Rounds(int ofShort, int ofLong) const
{
    if (rounds > 0)
        return rounds;
    return isLong ? ofLong : ofShort;
}

QString Options::Read(const QStringList& arguments)
{
    bool hasForm = false;
    for (int i = 0; i < arguments.size(); ++i) {
        const QString& argument = arguments.at(i);
        const bool takesNumber =
            argument == QLatin1String("--seed") || argument == QLatin1String("--rounds");
        if (takesNumber) {
            bool isNumber = false;
            const quint32 number = arguments.value(++i).toUInt(&isNumber);
            if (!isNumber)
                return argument + QStringLiteral(" needs a number");
            if (argument == QLatin1String("--seed"))
                seed = number;
            else if (number < 1 || number > 1000000000)
                return QStringLiteral("--rounds needs a number from 1 to 1000000000");
            else
                rounds = static_cast<int>(number);
        } else if (argument == QLatin1String("--keep")) {
            keep = true;
        } else if (argument == QLatin1String("--short") || argument == QLatin1String("--long")) {
            if (hasForm)
                return QStringLiteral("either --short or --long, once");
            hasForm = true;
            isLong = argument == QLatin1String("--long");
        } else {
            return QStringLiteral("unknown argument '%1'").arg(argument);
        }
    }
    return hasForm ? QString() : QStringLiteral("either --short or --long is needed");
}

Campaign::Campaign(int argc, char** argv)
    : program(QFileInfo(QString::fromLocal8Bit(argv[0])).fileName()),
      started(QDateTime::currentMSecsSinceEpoch())
{
    QStringList arguments;
    for (int i = 1; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    const QString mistake = options.Read(arguments);
    if (mistake.isEmpty())
        return;
    std::fprintf(stderr, "%s: %s\nusage: %s --short|--long [--seed N] [--rounds N] [--keep]\n",
                 qUtf8Printable(program), qUtf8Printable(mistake), qUtf8Printable(program));
    std::exit(2);
}

Campaign::~Campaign()
{
    DropDirectory();
    if (shared)
        kxtest::Remove(shared->path());
}

void Campaign::Fail(quint32 seed, const QString& point, const QString& text)
{
    ++failures;
    Print(QStringLiteral("FAILED at %1: %2\n  to repeat: %3 %4 --seed %5 --rounds 1 --keep")
              .arg(point, text, program,
                   options.isLong ? QStringLiteral("--long") : QStringLiteral("--short"),
                   QString::number(seed)));
    if (options.keep && directory)
        Print(QStringLiteral("  kept: ") + directory->path());
}

void Campaign::Figure(const QString& name, const QString& value)
{
    for (auto& figure : figures) {
        if (figure.first == name) {
            figure.second = value;
            return;
        }
    }
    figures.append({name, value});
}

void Campaign::Figure(const QString& name, qint64 value)
{
    Figure(name, QString::number(value));
}

int Campaign::End()
{
    Figure(QStringLiteral("seed"), qint64(options.seed));
    Figure(QStringLiteral("form"),
           options.isLong ? QStringLiteral("long") : QStringLiteral("short"));
    Figure(QStringLiteral("failures"), failures);
    Figure(QStringLiteral("seconds"), (QDateTime::currentMSecsSinceEpoch() - started) / 1000);
    for (const auto& [name, value] : figures)
        Print(name + QStringLiteral(": ") + value);
    return failures == 0 ? 0 : 1;
}

QString Campaign::NewDirectory()
{
    DropDirectory();
    failuresBefore = failures;
    directory = MakeDirectory();
    return directory->path();
}

QString Campaign::SharedDirectory()
{
    if (!shared)
        shared = MakeDirectory();
    return shared->path();
}

void Campaign::DropDirectory()
{
    if (!directory)
        return;
    if (options.keep && failures > failuresBefore)
        directory->setAutoRemove(false);
    else
        kxtest::Remove(directory->path()); // also what QTemporaryDir cannot: read-only directories
    directory.reset();
}

} // namespace campaign
