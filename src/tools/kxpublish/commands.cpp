#include "commands.h"

#include "commands/addcommand.h"
#include "commands/diffcommand.h"
#include "commands/keygencommand.h"
#include "commands/listcommand.h"
#include "commands/promotecommand.h"
#include "commands/prunecommand.h"
#include "commands/rollbackcommand.h"
#include "commands/servecommand.h"
#include "commands/signcommand.h"
#include "commands/verifycommand.h"
#include "output/console.h"
#include "output/consoleprogress.h"

#include "common/commandline.h"

#include <kxupdater/build.h>

namespace publish {
namespace {

using tools::CommandLine;
using tools::CommandSpec;
using tools::Completion;
using tools::OptionSpec;

constexpr unsigned required = OptionSpec::Required;
constexpr unsigned optional = OptionSpec::Optional;

tools::ArgumentSpec ServerTreeArgument()
{
    return {"SERVERTREE", "Directory that holds the published builds.", false,
            Completion::Directory};
}

OptionSpec OutOption()
{
    return {"out", "SERVERTREE", "Directory that holds the published builds.", required,
            Completion::Directory};
}

OptionSpec WaitOption()
{
    return {"wait", "SECONDS",
            "How long to wait while another run writes into SERVERTREE, 0 to 86400; 0 if not "
            "given."};
}

OptionSpec SignOption(const char* description)
{
    return {"sign", "SECRET", description, optional, Completion::File};
}

OptionSpec PassphraseOption()
{
    return {"passphrase-file", "FILE",
            "File whose only line is the passphrase of the key; asked for on the terminal if not "
            "given.",
            optional, Completion::File};
}

OptionSpec PlatformOption()
{
    return {"platform", "PLATFORM",        "x64 or x86; this system's own if not given.",
            optional,   Completion::Words, "x64 x86"};
}

/** The build that the line names. */
Build BuildOf(const CommandLine& line)
{
    return {line.Value("name"), line.Value("version"),
            line.IsSet("platform") ? line.Value("platform") : updater::Build::Platform()};
}

/** False, with a message, when `option` is given and `other`, which it belongs to, is not. */
bool CheckGoesWith(const CommandLine& line, const char* option, const char* other)
{
    if (!line.IsSet(option) || line.IsSet(other))
        return true;
    Complain(QStringLiteral("--%1 is of no use without --%2")
                 .arg(QLatin1String(option), QLatin1String(other)));
    Say(line.HelpHint());
    return false;
}

/** False, with a message, when `option` is given and has no text. */
bool CheckNotEmpty(const CommandLine& line, const char* option)
{
    if (!line.IsSet(option) || !line.Value(option).isEmpty())
        return true;
    Complain(QStringLiteral("--%1 is empty").arg(QLatin1String(option)));
    return false;
}

/** Reads what the line says of the key to sign with, named by `option`. */
bool ReadSigning(const CommandLine& line, const char* option, SigningOptions& signing)
{
    signing.key = line.Value(option);
    signing.passphraseFile = line.Value("passphrase-file");
    return CheckNotEmpty(line, option) && CheckNotEmpty(line, "passphrase-file") &&
           CheckGoesWith(line, "passphrase-file", option);
}

/** Reads the value of `option`, if it is given, as a number of a range. */
bool ReadNumber(const CommandLine& line, const char* option, int least, int most, int& number)
{
    if (!line.IsSet(option))
        return true;
    bool isNumber = false;
    number = line.Value(option).toInt(&isNumber);
    if (isNumber && number >= least && number <= most)
        return true;
    Complain(QStringLiteral("--%1 %2 is not a number from %3 to %4")
                 .arg(QLatin1String(option), Shown(line.Value(option)))
                 .arg(least)
                 .arg(most));
    Say(line.HelpHint());
    return false;
}

template <typename Command>
void PrintResult(const Command& command)
{
    for (const QString& line : command.Result().Lines())
        PrintText(line + QLatin1Char('\n'));
    PrintJson(command.Result().ToJson());
}

template <typename Command>
ExitStatus RunAndPrint(Command& command)
{
    const ExitStatus status = command.Run();
    // A refusal has no result; what was found or done otherwise is told.
    if (status != ExitRefused)
        PrintResult(command);
    return status;
}

CommandSpec AddSpec()
{
    return {
        "add",
        "publish a tree as one version of a package",
        "Publishes a directory tree as one version of a package. Clients see all of it or nothing, "
        "and are offered it after 'promote'.",
        {{"TREE", "Directory to publish.", false, Completion::Directory}},
        {{"name", "NAME", "Name of the package.", required},
         {"version", "VERSION", "Version of the package.", required},
         PlatformOption(),
         {"exec", "FILE", "Program of the tree that clients start, relative to TREE.", required},
         {"base-url", "URL", "Address at which SERVERTREE is served.", required},
         {"out", "SERVERTREE", "Directory to publish into; made if missing.", required,
          Completion::Directory},
         {"exclude", "GLOB",
          "Leave out what matches, as a line of a .gitignore; counts after those of the tree's "
          ".kxpublishignore.",
          OptionSpec::Repeatable},
         {"notes", "FILE", "Release notes to publish as notes.md beside the manifest.", optional,
          Completion::File},
         SignOption("Sign the build with this secret key."),
         PassphraseOption(),
         WaitOption(),
         {"dry-run", nullptr, "Check and report everything, write nothing."}},
    };
}

ExitStatus RunAdd(const CommandLine& line)
{
    AddSettings settings;
    settings.tree = line.Argument(0);
    settings.build = BuildOf(line);
    settings.executable = line.Value("exec");
    settings.baseUrl = line.Value("base-url");
    settings.serverTree = line.Value("out");
    settings.excludes = line.Values("exclude");
    settings.notes = line.Value("notes");
    settings.dryRun = line.IsSet("dry-run");
    if (!ReadSigning(line, "sign", settings.sign) ||
        !ReadNumber(line, "wait", 0, ServerTree::maxWait, settings.waitSeconds))
        return ExitUsage;
    ConsoleProgress progress;
    return AddCommand(settings, ConsoleProgress::IsOfUse() ? &progress : nullptr).Run();
}

CommandSpec PromoteSpec()
{
    return {
        "promote",
        "offer a version to the clients",
        "Offers a version to the clients. One answer speaks for every package and platform of "
        "SERVERTREE, so each of them must be published in VERSION.",
        {},
        {{"version", "VERSION", "Version to offer.", required}, OutOption(), WaitOption()},
    };
}

ExitStatus RunPromote(const CommandLine& line)
{
    PromoteSettings settings;
    settings.version = line.Value("version");
    settings.serverTree = line.Value("out");
    if (!ReadNumber(line, "wait", 0, ServerTree::maxWait, settings.waitSeconds))
        return ExitUsage;
    return PromoteCommand(settings).Run();
}

CommandSpec RollbackSpec()
{
    return {
        "rollback",
        "offer what was offered before",
        "Offers the version that was offered before the present one. Another rollback goes one "
        "more step back, never forth again.",
        {ServerTreeArgument()},
        {{"as", "VERSION",
          "Publish the older builds again as VERSION, for hosts that never go back."},
         SignOption("Sign what is published again with this secret key; needed when the older "
                    "builds are signed, which are checked first."),
         PassphraseOption(),
         {"key", "PUBLIC",
          "Another public key that the older builds may be signed with, besides that of --sign.",
          OptionSpec::Repeatable, Completion::File},
         WaitOption(),
         {"dry-run", nullptr, "Only tell what would be offered."}},
    };
}

ExitStatus RunRollback(const CommandLine& line)
{
    RollbackSettings settings;
    settings.serverTree = line.Argument(0);
    settings.as = line.Value("as");
    settings.dryRun = line.IsSet("dry-run");
    settings.keyFiles = line.Values("key");
    if (!CheckNotEmpty(line, "as") || !ReadSigning(line, "sign", settings.sign) ||
        !CheckGoesWith(line, "sign", "as") || !CheckGoesWith(line, "key", "sign") ||
        !ReadNumber(line, "wait", 0, ServerTree::maxWait, settings.waitSeconds))
        return ExitUsage;
    RollbackCommand command(settings);
    const ExitStatus status = command.Run();
    // All or nothing: otherwise the version that it names is not the one on offer.
    if (status == ExitDone)
        PrintResult(command);
    return status;
}

CommandSpec ListSpec()
{
    return {
        "list",
        "tell what is published",
        "Tells what is published, version by version: when, how large, and which version is "
        "offered. OWN DISK BYTES come free when the build goes: files that builds share through "
        "hard links are not among them.",
        {ServerTreeArgument()},
    };
}

ExitStatus RunList(const CommandLine& line)
{
    ListSettings settings;
    settings.serverTree = line.Argument(0);
    ListCommand command(settings);
    return RunAndPrint(command);
}

CommandSpec DiffSpec()
{
    return {
        "diff",
        "tell what an update from one version to another does",
        "Tells what a client that has version A downloads, copies, links and drops to have B, "
        "the largest files first.",
        {ServerTreeArgument(),
         {"A", "Version that the client has."},
         {"B", "Version that it is updated to."}},
        {{"name", "NAME", "Package; the only one if not given."},
         {"platform", "PLATFORM", "Platform; the only one if not given.", optional,
          Completion::Words, "x64 x86"},
         {"all", nullptr, "List every file, not only the 20 largest."}},
    };
}

ExitStatus RunDiff(const CommandLine& line)
{
    DiffSettings settings;
    settings.serverTree = line.Argument(0);
    settings.from = line.Argument(1);
    settings.to = line.Argument(2);
    settings.package = line.Value("name");
    settings.platform = line.Value("platform");
    settings.all = line.IsSet("all");
    DiffCommand command(settings);
    return RunAndPrint(command);
}

CommandSpec VerifySpec()
{
    return {
        "verify",
        "read everything back and compare it",
        "Reads published builds back as a client would, from the disk or over the network, and "
        "compares them with their manifests. Every file is named that is missing, or of the "
        "wrong size or digest, or that no client could ever verify. With --key the signatures are "
        "checked as well, and a build without one is named, too.",
        {{"TARGET", "Directory that holds the builds, or URL at which it is served.", false,
          Completion::Directory}},
        {{"name", "NAME", "Package; needed for a URL.", OptionSpec::Repeatable},
         {"version", "VERSION", "All versions, or the offered one of a URL, if not given."},
         {"platform", "PLATFORM", "All platforms, or x64 of a URL, if not given.", optional,
          Completion::Words, "x64 x86"},
         {"key", "PUBLIC", "Public key that builds have to be signed with; one of several.",
          OptionSpec::Repeatable, Completion::File},
         {"jobs", "N", "Files that are read at the same time, 1 to 16; 4 if not given."}},
    };
}

ExitStatus RunVerify(const CommandLine& line)
{
    VerifySettings settings;
    settings.target = line.Argument(0);
    settings.names = line.Values("name");
    settings.version = line.Value("version");
    settings.platform = line.Value("platform");
    settings.keyFiles = line.Values("key");
    if (!ReadNumber(line, "jobs", 1, 16, settings.jobs))
        return ExitUsage;
    VerifyCommand command(settings);
    return RunAndPrint(command);
}

CommandSpec PruneSpec()
{
    return {
        "prune",
        "remove old versions",
        "Removes old versions of each package and platform. The version on offer and the one that "
        "a rollback would offer next stay. A client that is downloading a removed version gets a "
        "404, and begins with the version on offer at its next check.",
        {ServerTreeArgument()},
        {{"keep", "N", "Latest versions that stay; at least 1.", required},
         WaitOption(),
         {"dry-run", nullptr, "Only tell what would be removed."}},
    };
}

ExitStatus RunPrune(const CommandLine& line)
{
    PruneSettings settings;
    settings.serverTree = line.Argument(0);
    settings.dryRun = line.IsSet("dry-run");
    if (!ReadNumber(line, "keep", 1, 1000000, settings.keep) ||
        !ReadNumber(line, "wait", 0, ServerTree::maxWait, settings.waitSeconds))
        return ExitUsage;
    PruneCommand command(settings);
    return RunAndPrint(command);
}

CommandSpec ServeSpec()
{
    return {
        "serve",
        "serve a server tree on this machine, for trying out",
        "Serves SERVERTREE at 127.0.0.1 with nginx until Ctrl-C, for trying out. Prints the "
        "address, and a line for each request. Manifests go out with this address in place of the "
        "one that they hold; nothing in the tree changes. With --json an object tells the address "
        "once the server is ready, and another one comes at the end.",
        {ServerTreeArgument()},
        {{"port", "PORT", "Port to listen on; any free one if not given."},
         {"limit-rate", "BYTES", "Bytes a second of each connection, such as 100k or 2m."},
         {"keep-urls", nullptr, "Leave the addresses in manifests as they are."}},
    };
}

ExitStatus RunServe(const CommandLine& line)
{
    ServeSettings settings;
    settings.serverTree = line.Argument(0);
    settings.port = line.IsSet("port") ? line.Value("port") : QStringLiteral("0");
    settings.limitRate = line.Value("limit-rate");
    settings.keepUrls = line.IsSet("keep-urls");
    settings.quiet = line.IsSet("quiet");
    return ServeCommand(settings).Run();
}

CommandSpec KeygenSpec()
{
    return {
        "keygen",
        "make a key pair for signing",
        "Makes a key pair for signing, in the format of minisign. The secret key stays with who "
        "publishes, and away from the server; the public key goes into the clients. Without one "
        "of the options for it, a passphrase is asked for twice on the terminal.",
        {},
        {{"secret", "FILE", "Secret key to make, for its owner's eyes alone.", required,
          Completion::File},
         {"public", "FILE", "Public key to make.", required, Completion::File},
         {"no-passphrase", nullptr,
          "Do not encrypt the secret key: whoever can read the file can sign."},
         {"passphrase-file", "FILE", "File whose only line is the passphrase.", optional,
          Completion::File}},
    };
}

ExitStatus RunKeygen(const CommandLine& line)
{
    KeygenSettings settings;
    settings.secretFile = line.Value("secret");
    settings.publicFile = line.Value("public");
    settings.passphraseFile = line.Value("passphrase-file");
    settings.noPassphrase = line.IsSet("no-passphrase");
    for (const char* option : {"secret", "public", "passphrase-file"}) {
        if (!CheckNotEmpty(line, option))
            return ExitUsage;
    }
    if (settings.noPassphrase && line.IsSet("passphrase-file")) {
        Complain(QStringLiteral("--no-passphrase and --passphrase-file exclude each other"));
        Say(line.HelpHint());
        return ExitUsage;
    }
    return KeygenCommand(settings).Run();
}

CommandSpec SignSpec()
{
    return {
        "sign",
        "sign a directory tree",
        "Writes SHA256SUMS and SHA256SUMS.minisig into TREE, in place of older ones: the digests "
        "of everything in it, and their signature for one version of a package. They are those "
        "that 'add --sign' publishes with the tree.",
        {{"TREE", "Directory to sign.", false, Completion::Directory}},
        {{"key", "SECRET", "Secret key to sign with.", required, Completion::File},
         PassphraseOption(),
         {"name", "NAME", "Name of the package.", required},
         {"version", "VERSION", "Version of the package.", required},
         PlatformOption()},
    };
}

ExitStatus RunSign(const CommandLine& line)
{
    SignSettings settings;
    settings.tree = line.Argument(0);
    settings.build = BuildOf(line);
    if (!ReadSigning(line, "key", settings.sign))
        return ExitUsage;
    ConsoleProgress progress;
    return SignCommand(settings, ConsoleProgress::IsOfUse() ? &progress : nullptr).Run();
}

struct Row
{
    CommandSpec (*spec)();
    ExitStatus (*run)(const CommandLine& line);
};

const Row rows[] = {
    {AddSpec, RunAdd},     {PromoteSpec, RunPromote}, {RollbackSpec, RunRollback},
    {ListSpec, RunList},   {DiffSpec, RunDiff},       {VerifySpec, RunVerify},
    {PruneSpec, RunPrune}, {ServeSpec, RunServe},     {KeygenSpec, RunKeygen},
    {SignSpec, RunSign},
};

} // namespace

const tools::ProgramSpec& Program()
{
    static const tools::ProgramSpec program = [] {
        tools::ProgramSpec spec;
        spec.name = "kxpublish";
        spec.version = KXPUBLISH_VERSION;
        spec.summary = "publishes directory trees for the clients of the update library";
        spec.description =
            "kxpublish keeps a server tree: a directory that a plain web server hands out to the "
            "clients. A version is published with 'add', and offered with 'promote'. Every step "
            "shows whole or not at all, and what an interrupted run leaves behind is removed by "
            "the next.";
        for (const Row& row : rows)
            spec.commands.append(row.spec());
        spec.commonOptions = {
            {"json", nullptr, "Print the result as one JSON object instead of lines."},
            {"quiet", nullptr, "Print only data, warnings and errors.", OptionSpec::Optional,
             Completion::None, "", "q"},
        };
        spec.examples = {
            {"Publish a version and offer it",
             "kxpublish add --name hello --version 1.1 --exec bin/hello \\\n"
             "    --base-url https://updates.example.org --out /srv/updates build/hello\n"
             "kxpublish promote --version 1.1 --out /srv/updates"},
            {"Make a key, and sign what is published",
             "kxpublish keygen --secret hello.key --public hello.pub\n"
             "kxpublish add --sign hello.key --name hello --version 1.2 --exec bin/hello \\\n"
             "    --base-url https://updates.example.org --out /srv/updates build/hello\n"
             "kxpublish verify --key hello.pub /srv/updates"},
        };
        spec.exitStatuses = ExitStatuses();
        spec.seeAlso = "kxupdate(1), minisign(1)";
        return spec;
    }();
    return program;
}

ExitStatus RunCommand(const CommandLine& line)
{
    for (const Row& row : rows) {
        if (line.Command() == QLatin1String(row.spec().name))
            return row.run(line);
    }
    return ExitUsage;
}

} // namespace publish
