#include "commands.h"

#include "addcommand.h"
#include "promotecommand.h"

#include "common/commandline.h"

#include <kxupdater/build.h>

namespace publish {
namespace {

using tools::CommandLine;
using tools::CommandSpec;
using tools::Completion;
using tools::OptionSpec;

constexpr unsigned required = OptionSpec::Required;

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
         {"platform", "PLATFORM", "x64 or x86; this system's own if not given.",
          OptionSpec::Optional, Completion::Words, "x64 x86"},
         {"exec", "FILE", "Program of the tree that clients start, relative to TREE.", required},
         {"base-url", "URL", "Address at which SERVERTREE is served.", required},
         {"out", "SERVERTREE", "Directory to publish into; made if missing.", required,
          Completion::Directory}},
    };
}

ExitStatus RunAdd(const CommandLine& line)
{
    AddSettings settings;
    settings.tree = line.Argument(0);
    settings.build.package = line.Value("name");
    settings.build.version = line.Value("version");
    settings.build.platform =
        line.IsSet("platform") ? line.Value("platform") : updater::Build::Platform();
    settings.executable = line.Value("exec");
    settings.baseUrl = line.Value("base-url");
    settings.serverTree = line.Value("out");
    return AddCommand(settings).Run();
}

CommandSpec PromoteSpec()
{
    return {
        "promote",
        "offer a version to the clients",
        "Offers a version to the clients. One answer speaks for every package and platform of "
        "SERVERTREE, so each of them must be published in VERSION.",
        {},
        {{"version", "VERSION", "Version to offer.", required},
         {"out", "SERVERTREE", "Directory that holds the published builds.", required,
          Completion::Directory}},
    };
}

ExitStatus RunPromote(const CommandLine& line)
{
    PromoteSettings settings;
    settings.version = line.Value("version");
    settings.serverTree = line.Value("out");
    return PromoteCommand(settings).Run();
}

struct Row
{
    CommandSpec (*spec)();
    ExitStatus (*run)(const CommandLine& line);
};

const Row rows[] = {
    {AddSpec, RunAdd},
    {PromoteSpec, RunPromote},
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
        };
        spec.exitStatuses = ExitStatuses();
        spec.seeAlso = "kxupdate(1)";
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
