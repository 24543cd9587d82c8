#include "options.h"

#include "exitstatus.h"

namespace {

using tools::CommandSpec;
using tools::Completion;
using tools::OptionSpec;

// Understood with every command, whether it needs them or not: one set of settings serves them all.
QList<OptionSpec> Settings()
{
    return {
        {"url", "URL", "Base address of the server, the part before /packages."},
        {"package", "NAME", "Name of the package on the server."},
        {"current", "TEXT", "Version of the installed application; any text, 0 for none."},
        {"app", "DIR", "Application directory; need not exist yet.", OptionSpec::Optional,
         Completion::Directory},
        {"download", "DIR",
         "Where the new version is assembled; made when missing, cleared when it was made here "
         "(DIR.kxupdate marks it), else refused.",
         OptionSpec::Optional, Completion::Directory},
        {"xml", "FILE",
         "Where the package description is kept; the download directory with '.xml' appended if "
         "not given.",
         OptionSpec::Optional, Completion::File},
    };
}

QList<CommandSpec> Commands()
{
    return {
        {"check", "ask whether the server has something else than the application holds",
         "Asks the server for its version, compares its list of files with the application "
         "directory, and says what there is to do. Changes nothing. Needs --url, --package, "
         "--current and --app."},
        {"download", "assemble and verify the server's version in the download directory",
         "Assembles the server's version in the download directory, from the installed files that "
         "did not change and downloads of the others, and verifies it. The application is not "
         "touched. Needs what 'check' needs, and --download."},
        {"install", "swap a downloaded version in; the old one comes back if that fails",
         "Verifies the download directory once more and swaps it in. The old version comes back "
         "if that fails. Needs --app and --download."},
        {"update", "all of it: check, download, install; also repairs damaged files",
         "Checks, downloads and installs. When the version is the same but files differ from it, "
         "they are repaired. Needs what 'download' needs."},
        {"verify", "compare --download (or --app) with the package that --xml describes",
         "Compares the download directory, or the application directory, with the package that "
         "--xml describes, and names what differs."},
    };
}

} // namespace

const tools::ProgramSpec& Program()
{
    static const tools::ProgramSpec program = [] {
        tools::ProgramSpec spec;
        spec.name = "kxupdate";
        spec.version = KX_VERSION;
        spec.summary = "keeps an application directory current from a static update server";
        spec.description =
            "Messages go to stderr, data to stdout as 'name: value'; the last line is 'result'. "
            "Ctrl-C ends the command, but a swap that has begun is finished first.";
        spec.commands = Commands();
        spec.lastValueCounts = true;
        spec.commonOptions =
            Settings() +
            QList<OptionSpec>{
                {"log-level", "N", "Forward the library's messages up to severity N, 0 to 7."},
                {"quiet", nullptr, "Print only errors and data.", OptionSpec::Optional,
                 Completion::None, "", "q"},
            };
        spec.examples = {
            {"Update an application",
             "kxupdate update --url https://updates.example.org --package hello --current 1.0 \\\n"
             "    --app /opt/hello --download /var/cache/hello/next"},
        };
        spec.exitStatuses = ExitStatuses();
        spec.seeAlso = "kxpublish(1)";
        return spec;
    }();
    return program;
}
