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
        {"config", "FILE",
         "Settings as 'key = value' lines; the command line wins over them. Keys: url, package, "
         "version (for --current), app, download, xml, proxy, ca-file, timeout, interval, key (one "
         "line each), allow-downgrade, refuse-running (yes or no). Relative paths are meant from "
         "the file's directory. The version is written back after an install, update or repair.",
         OptionSpec::Optional, Completion::File},
        {"proxy", "URL",
         "http:// or socks5:// with host and port, perhaps with a login, or none; the system's "
         "settings if not given. Other users of the machine see command lines: a password belongs "
         "into the configuration."},
        {"ca-file", "FILE", "Certificates (PEM) to trust besides the system's.",
         OptionSpec::Optional, Completion::File},
        {"timeout", "SECONDS",
         "Seconds without any data after which a transfer has failed, 1 to 3600; 30 if not given."},
        {"interval", "SECONDS",
         "With --watch: seconds between the end of a round and the next check, 1 to 2592000, of "
         "which at most 2147483 are waited; as long if not given."},
        {"key", "FILE",
         "A public key in minisign's format. With a key nothing is downloaded or installed that "
         "one "
         "of them has not signed for --package.",
         OptionSpec::Repeatable, Completion::File},
        {"allow-downgrade", nullptr,
         "Take a version that is earlier than the installed one; without it such a version is "
         "refused."},
        {"refuse-running", nullptr,
         "Do not replace an application while another process runs a program of it."},
    };
}

OptionSpec WatchOption(const char* description)
{
    return {"watch", nullptr, description};
}

OptionSpec RunOption()
{
    return {"run", nullptr,
            "After a successful swap start the package's program, detached, as the same user. When "
            "nothing was replaced, nothing is started. The datum 'started' tells which, or none."};
}

QList<CommandSpec> Commands()
{
    return {
        {"check",
         "ask whether the server has something else than the application holds",
         "Asks the server for its version, compares its list of files with the application "
         "directory, and says what there is to do. Changes nothing. Needs --url, --package, "
         "--current and --app.",
         {},
         {WatchOption("Stay, and check again after --interval seconds. Each round ends with a "
                      "result; Ctrl-C ends the watch with status 0.")}},
        {"download", "assemble and verify the server's version in the download directory",
         "Assembles the server's version in the download directory, from the installed files that "
         "did not change and downloads of the others, and verifies it. The application is not "
         "touched. Needs what 'check' needs, and --download."},
        {"install",
         "swap a downloaded version in; the old one comes back if that fails",
         "Verifies the download directory once more and swaps it in. The old version comes back "
         "if that fails. Needs --app and --download.",
         {},
         {RunOption()}},
        {"update",
         "all of it: check, download, install; also repairs damaged files",
         "Checks, downloads and installs. When the version is the same but files differ from it, "
         "they are repaired. Needs what 'download' needs.",
         {},
         {WatchOption("Stay, and update again after --interval seconds. Each round ends with a "
                      "result; Ctrl-C ends the watch with status 0, after a swap that has begun. "
                      "What failed twice is not tried a third time, unless it was the network; a "
                      "run without --watch clears the count."),
          RunOption()}},
        {"repair",
         "update, but only to the version that is installed",
         "Checks, names the files that are damaged, missing or not the package's, and replaces the "
         "application by a whole one of the same version. When the server has another version, it "
         "only says so. Needs what 'download' needs.",
         {},
         {RunOption()}},
        {"verify", "compare --download (or --app) with the package that --xml describes",
         "Compares the download directory, or the application directory, with the package that "
         "--xml describes, and names what differs. With --config it is the application, unless "
         "--download is given. With --key both must be signed."},
        {"recover",
         "put an application in order whose install was killed",
         "Brings the application directory back to a whole state after a swap that was killed or "
         "cut off by a power cut: the old version comes back if it had been moved aside, and what "
         "a finished swap has left is removed. 'install', 'update' and 'repair' do the same before "
         "they begin. The datum 'recovery' tells what was found: whole, restored, finished, "
         "cleaned, absent, busy or failed. Needs --app.",
         {},
         {{"wait", "SECONDS",
           "How long to wait for another process that works on the application, 0 to 86400; 0 if "
           "not given."}}},
        {"status", "tell what is there, without the network",
         "Tells what the configuration says, whether the application and a backup are there, who "
         "holds the locks, what the download directory holds, verified against the description "
         "that is kept beside it, and how the last run ended. Changes nothing. Needs --app."},
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
                {"log-file", "FILE",
                 "Append the library's messages to this file instead of printing them, each with "
                 "its time; up to severity 6 if --log-level is not given.",
                 OptionSpec::Optional, Completion::File},
                {"json", nullptr,
                 "Print one JSON object a line on stdout, instead of messages and data, while it "
                 "goes on. The last one is the result."},
                {"quiet", nullptr, "Print only errors and data.", OptionSpec::Optional,
                 Completion::None, "", "q"},
            };
        spec.examples = {
            {"Update an application",
             "kxupdate update --url https://updates.example.org --package hello --current 1.0 \\\n"
             "    --app /opt/hello --download /var/cache/hello/next"},
            {"Keep one current from a file of settings",
             "kxupdate update --watch --interval 3600 --config /etc/kxupdate/hello.conf"},
        };
        spec.exitStatuses = ExitStatuses();
        spec.seeAlso = "kxpublish(1)";
        return spec;
    }();
    return program;
}
