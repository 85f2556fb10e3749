#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>
#include <map>
#include <new>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

#include "ApplicationCommands.h"
#include "Commands.h"
#include "Failure.h"
#include "Progress.h"
#include "Report.h"
#include "SubscriptionCommands.h"
#include "Text.h"
#include "application/ImportBudget.h"
#include "platform/linux/LinuxHost.h"

#ifndef STONEWALL_VERSION
#define STONEWALL_VERSION "unknown"
#endif

namespace stonewall::tool {
namespace {

// The table below is made before main() chooses the locale: its texts are
// marked with N_() and translated with tr() where they are shown.

constexpr const char* kDescription =
    N_("Compile the active Stonewall blocker profile into the content-blocker rule list and "
       "reload the content blocker; block, secure or allow websites, pick page elements, switch "
       "blocking and profiles, as the browser extension does.");

constexpr const char* kFooter = N_(R"(
Exit codes:
  0  success (also when there was nothing to change)
  1  usage: the command line is wrong
  2  bad input, nothing changed: a URL without a host, an unknown profile
     identifier, an unreadable or malformed file
  3  storage: the container cannot be created or used, a template database
     is missing, a database cannot be read, the rule file was not written
  4  reload or compile: WebKit rejected a rule list (its message is shown;
     also the verdict of validate) or the content blocker did not answer
     within --timeout; a rule file already written stays written
  5  a system service is missing (watch or gnome-web without a D-Bus
     session bus, gnome-web without GNOME Web's settings schema)
  6  a subscribed list could not be downloaded or read (update: one line per
     list says why; its old rules stay; subscribe: nothing was subscribed)

Environment: STONEWALL_CONTAINER (the container, --container wins),
STONEWALL_RESOURCES (the template databases), STONEWALL_VERBOSE=1 (as -v);
docs/environment.md lists the others.)");

struct Arguments {
    CommonOptions common;
    CompileOptions compile;
    const CLI::Option* compileProfile = nullptr;  // given: compile.profile is set
    std::string compileProfileID;
    std::string state;
    std::string profileID;
    std::string url;
    std::string pageURL;
    std::string file;
    std::string name;
    int64_t count = 0;
    bool force = false;
};

// Whether a subcommand waits for the content blocker, and so takes --timeout.
enum class Waits { No, Yes };

// One subcommand: its place under the program ("profile activate"), what
// --help says of it, its own options (added before the common ones) and what
// it does. A row without `run` is a group that needs one of its subcommands.
struct Subcommand {
    const char* path;
    const char* summary;
    const char* details;  // the help text before the exit codes; null for none
    Waits waits;
    void (*options)(CLI::App& command, Arguments& arguments);
    void (*run)(const Arguments& arguments, Report& report);
};

// "profile import --help": the syntax it reads; the budget's policy follows.
constexpr const char* kImportDetails =
    N_("Reads \"!\" comments, \"||host^\" and \"|\" anchors, \"*\" and \"^\", \"$\" options\n"
       "(resource types, third-party, domain= with ~, match-case, cookie,\n"
       "csp=upgrade-insecure-requests), \"@@\" exceptions and \"##\"/\"#@#\" element\n"
       "hiding. Lines WebKit cannot express are skipped and counted by reason; rules\n"
       "the profile holds already are not added again. The active profile is\n"
       "compiled and reloaded.\n\n"
       "The content blocker takes at most 50000 rules. An import fills what that\n"
       "leaves, less 1000 rules kept free for your own website lists and picked\n"
       "elements and less the rules of lists imported before (they share it).\n"
       "Which rules stay (docs/filter-lists.md):\n");

// An empty value would silently mean "the default"; say so instead.
CLI::Validator NotEmpty() {
    return CLI::Validator(
        [](std::string& value) {
            return value.empty() ? std::string(tr("must not be empty")) : "";
        },
        "", "NotEmpty");
}

void addCommonOptions(CLI::App* command, Arguments& arguments, Waits waits) {
    command
        ->add_option("--container", arguments.common.container,
                     tr("The application-group container to use (created when missing); default "
                        "$STONEWALL_CONTAINER, else "
                        "$XDG_DATA_HOME/stonewall/containers/K7Q2XJ4M9P.com.mapleharbor.Stonewall"))
        ->type_name("DIR")
        ->check(NotEmpty());
    command->add_flag("--json", arguments.common.json,
                      tr("Print one JSON object instead of the table"));
    command->add_flag("-v,--verbose", arguments.common.verbose,
                      tr("Debug logging on stderr (storage and engine diagnostics)"));
    if (waits == Waits::Yes) {
        command
            ->add_option("--timeout", arguments.common.timeoutSeconds,
                         tr("Seconds to wait for the content blocker's answer before giving up"))
            ->type_name("SECONDS")
            ->check(CLI::PositiveNumber)
            ->capture_default_str();
    }
}

void pageURLArgument(CLI::App& command, Arguments& arguments) {
    command.add_option("URL", arguments.url, tr("The page URL, e.g. https://example.com/"))
        ->required();
}

void profileIDArgument(CLI::App& command, Arguments& arguments) {
    command.add_option("ID", arguments.profileID, tr("Profile identifier (see profile list)"))
        ->required();
}

constexpr const char* kRemoveDetails =
    N_("Removes the host from the list rule of the active profile and from the\n"
       "shared custom rules, then tidies the lists and reloads. A host that is not\n"
       "on the list changes nothing and says so.");

// In the order --help lists them; a group's subcommands follow the group.
const Subcommand kSubcommands[] = {
    {"compile", N_("Compile the active profile into its rule list and reload the content blocker"),
     N_("Reads the profile's rules action by action (5, 1, 4, 2, 3, 6, 7, 8), drops\n"
        "duplicates, caps the list at 50000 rules, writes\n"
        "<container>/.Profiles/profile_<ID>_unarchive.json and asks the content blocker\n"
        "to reload. Prints the rules read per action, duplicates dropped, rules capped,\n"
        "rules and bytes written, the time taken and the reload outcome."),
     Waits::Yes,
     [](CLI::App& command, Arguments& arguments) {
         arguments.compileProfile =
             command
                 .add_option("--profile", arguments.compileProfileID,
                             tr("Compile this profile instead of the active one (a profile "
                                "identifier of the shared record); with a reload the browser then "
                                "loads it"))
                 ->type_name("ID");
         command.add_flag("--no-reload", arguments.compile.noReload,
                          tr("Only write the rule file; no reload is asked for (for pipelines that "
                             "prepare lists without a browser)"));
     },
     [](const Arguments& arguments, Report& report) {
         CompileOptions options = arguments.compile;
         if (arguments.compileProfile->count() > 0) options.profile = arguments.compileProfileID;
         runCompile(arguments.common, options, report);
     }},
    {"status", N_("Show, or switch on or off, content blocking"),
     N_("Without a state, shows it. \"on\" or \"off\" store the new status, notify the\n"
        "main application and reload the content blocker; switching to the state it\n"
        "is already in changes nothing and says so."),
     Waits::Yes,
     [](CLI::App& command, Arguments& arguments) {
         command.add_option("state", arguments.state, tr("on or off"))
             ->check(CLI::IsMember({"on", "off"}));
     },
     [](const Arguments& arguments, Report& report) {
         runStatus(
             arguments.common,
             arguments.state.empty() ? std::nullopt : std::optional<std::string>(arguments.state),
             report);
     }},
    {"profile", N_("List, activate, create, rename or remove blocker profiles; import lists"),
     nullptr, Waits::No, nullptr, nullptr},
    {"profile list", N_("List the profiles of the shared record; * marks the active one"), nullptr,
     Waits::No, nullptr,
     [](const Arguments& arguments, Report& report) { runProfileList(arguments.common, report); }},
    {"profile activate", N_("Make a profile the active one, compile its rules and reload"),
     N_("The identifier must be one of the shared record's profiles (see profile list).\n"
        "Activating the active profile changes nothing."),
     Waits::Yes, profileIDArgument,
     [](const Arguments& arguments, Report& report) {
         runProfileActivate(arguments.common, arguments.profileID, report);
     }},
    {"profile create", N_("Create an empty blocker profile"),
     N_("The name must not be empty, hold a \",\" or be longer than 40 characters.\n"
        "Prints the new profile's identifier."),
     Waits::No,
     [](CLI::App& command, Arguments& arguments) {
         command.add_option("NAME", arguments.name, tr("The profile's name"))->required();
     },
     [](const Arguments& arguments, Report& report) {
         runProfileCreate(arguments.common, arguments.name, report);
     }},
    {"profile rename", N_("Rename a blocker profile"), nullptr, Waits::No,
     [](CLI::App& command, Arguments& arguments) {
         profileIDArgument(command, arguments);
         command.add_option("NAME", arguments.name, tr("The new name"))->required();
     },
     [](const Arguments& arguments, Report& report) {
         runProfileRename(arguments.common, arguments.profileID, arguments.name, report);
     }},
    {"profile remove",
     N_("Remove a blocker profile with its rules (not the active or the last one)"), nullptr,
     Waits::No, profileIDArgument,
     [](const Arguments& arguments, Report& report) {
         runProfileRemove(arguments.common, arguments.profileID, report);
     }},
    {"profile import", N_("Add the rules of an adblock filter list (EasyList syntax) to a profile"),
     kImportDetails, Waits::Yes,
     [](CLI::App& command, Arguments& arguments) {
         profileIDArgument(command, arguments);
         command.add_option("FILE", arguments.file, tr("The filter list, or - for standard input"))
             ->required();
     },
     [](const Arguments& arguments, Report& report) {
         runProfileImport(arguments.common, arguments.profileID, arguments.file, report);
     }},
    {"profile subscribe", N_("Subscribe a profile to a filter list by its URL and import it now"),
     N_("URL is an http, https or file URL, or easylist or easyprivacy (the lists of\n"
        "easylist.to). The list is downloaded and imported as by profile import, with\n"
        "the same rule budget; stonewall update fetches it again when it is due (its\n"
        "\"! Expires:\" header, else every 4 days). A list that cannot be downloaded or\n"
        "read is not subscribed."),
     Waits::Yes,
     [](CLI::App& command, Arguments& arguments) {
         profileIDArgument(command, arguments);
         command.add_option("URL", arguments.url, tr("The list's URL, easylist or easyprivacy"))
             ->required();
     },
     [](const Arguments& arguments, Report& report) {
         runProfileSubscribe(arguments.common, arguments.profileID, arguments.url, report);
     }},
    {"profile unsubscribe", N_("Forget a subscribed list and remove its rules from the profile"),
     nullptr, Waits::Yes,
     [](CLI::App& command, Arguments& arguments) {
         profileIDArgument(command, arguments);
         command.add_option("URL", arguments.url, tr("The list's URL, easylist or easyprivacy"))
             ->required();
     },
     [](const Arguments& arguments, Report& report) {
         runProfileUnsubscribe(arguments.common, arguments.profileID, arguments.url, report);
     }},
    {"profile subscriptions",
     N_("List the subscribed filter lists and the offered ones not subscribed yet"), nullptr,
     Waits::No, nullptr,
     [](const Arguments& arguments, Report& report) {
         runProfileSubscriptions(arguments.common, report);
     }},
    {"update", N_("Download the subscribed filter lists that are due and replace their rules"),
     N_("Each list due (or every list with --force) is asked for with the ETag and\n"
        "Last-Modified of its last download; \"not modified\" only sets its next time.\n"
        "A new list replaces the list's old rules in one step, ranked with the\n"
        "profile's other lists as by profile import. A list that fails (an HTTP\n"
        "error, a dropped connection, a body over 32 MiB, not a filter list) keeps\n"
        "its old rules, is tried again in an hour, and makes the exit code 6. The\n"
        "active profile is compiled and reloaded once, when it changed."),
     Waits::Yes,
     [](CLI::App& command, Arguments& arguments) {
         command.add_flag("--force", arguments.force, tr("Fetch every subscribed list now"));
     },
     [](const Arguments& arguments, Report& report) {
         runUpdate(arguments.common, arguments.force, report);
     }},
    {"block", N_("Add the URL's host to the block list of the active profile and reload"), nullptr,
     Waits::Yes, pageURLArgument,
     [](const Arguments& arguments, Report& report) {
         runWebsite(arguments.common, WebsiteList::Block, arguments.url, report);
     }},
    {"secure",
     N_("Add the URL's host to the secure (HTTPS only) list of the active profile and reload"),
     nullptr, Waits::Yes, pageURLArgument,
     [](const Arguments& arguments, Report& report) {
         runWebsite(arguments.common, WebsiteList::Secure, arguments.url, report);
     }},
    {"allow",
     N_("Add the URL's host to the allow list of the active profile (no blocking there) and "
        "reload"),
     nullptr, Waits::Yes, pageURLArgument,
     [](const Arguments& arguments, Report& report) {
         runWebsite(arguments.common, WebsiteList::Allow, arguments.url, report);
     }},
    {"unblock", N_("Take the URL's host off the block list and reload"), kRemoveDetails, Waits::Yes,
     pageURLArgument,
     [](const Arguments& arguments, Report& report) {
         runRemoveWebsite(arguments.common, WebsiteList::Block, arguments.url, report);
     }},
    {"unsecure", N_("Take the URL's host off the secure list and reload"), kRemoveDetails,
     Waits::Yes, pageURLArgument,
     [](const Arguments& arguments, Report& report) {
         runRemoveWebsite(arguments.common, WebsiteList::Secure, arguments.url, report);
     }},
    {"unallow", N_("Take the URL's host off the allow list and reload"), kRemoveDetails, Waits::Yes,
     pageURLArgument,
     [](const Arguments& arguments, Report& report) {
         runRemoveWebsite(arguments.common, WebsiteList::Allow, arguments.url, report);
     }},
    {"lists", N_("Upkeep of the website lists"), nullptr, Waits::No, nullptr, nullptr},
    {"lists tidy", N_("Merge each website list into one rule and mark it so new hosts join it"),
     N_("Merges all list rules of the block, allow and secure lists into one rule\n"
        "each, keeping every host once, and sets the list's position of the shared\n"
        "\"domainStatus\" to 1, so that check sees every host and new hosts are merged\n"
        "into that rule. Runs after every block, secure, allow and unblock as well.\n"
        "A list whose status is 0 (kept in the shared database only) is left alone."),
     Waits::Yes, nullptr,
     [](const Arguments& arguments, Report& report) { runListsTidy(arguments.common, report); }},
    {"open-url", N_("Show what the application shows for a stonewall:// URL"),
     N_("The URLs: stonewall://status, activate, blockwebsite, securewebsite,\n"
        "whitelistwebsite, visual and open."),
     Waits::No,
     [](CLI::App& command, Arguments& arguments) {
         command.add_option("URL", arguments.url, tr("A stonewall:// URL"))->required();
     },
     [](const Arguments& arguments, Report& report) {
         runOpenURL(arguments.common, arguments.url, report);
     }},
    {"check", N_("Tell whether the URL's host is on the block, secure and allow lists"),
     N_("Exact membership of the host (IDNA-encoded, as the lists hold it), as the\n"
        "popover tests it before it offers its buttons."),
     Waits::No, pageURLArgument,
     [](const Arguments& arguments, Report& report) {
         runCheck(arguments.common, arguments.url, report);
     }},
    {"pick", N_("Turn picked page elements into custom rules and reload"),
     N_("FILE holds the \"data\" of a \"VisualData\" page message (or its whole user\n"
        "info, {\"data\": [...]}): a JSON array with one array of 9 strings per element:\n"
        "location, tag, selector, source, currentSource, parent tag, parent selector,\n"
        "parent source, parent currentSource. The location becomes the --page host.\n"
        "Ordinary elements become hide rules, images and media with a source block\n"
        "rules. A file with any malformed entry is refused as a whole."),
     Waits::Yes,
     [](CLI::App& command, Arguments& arguments) {
         command
             .add_option("--page", arguments.pageURL,
                         tr("URL of the page the elements were picked on"))
             ->required()
             ->type_name("URL");
         command
             .add_option("FILE", arguments.file, tr("The element file, or - for standard input"))
             ->required();
     },
     [](const Arguments& arguments, Report& report) {
         runPick(arguments.common, arguments.pageURL, arguments.file, report);
     }},
    {"validate", N_("Compile a content-blocker JSON file with WebKit and report its verdict"),
     N_("WebKit rejects a whole list for one bad rule without saying which; validate\n"
        "then compiles prefixes of the list to find the first rule it rejects\n"
        "(O(log n) compiles) and prints its index, the rule and WebKit's message.\n"
        "Nothing in the container is touched (it compiles into a temporary store)."),
     Waits::No,
     [](CLI::App& command, Arguments& arguments) {
         command.add_option("FILE", arguments.file, tr("The rule list, or - for standard input"))
             ->required();
     },
     [](const Arguments& arguments, Report& report) {
         runValidate(arguments.common, arguments.file, report);
     }},
    {"watch", N_("Print each \"extensionUpdate\" notification as it arrives"),
     N_("One line per notification (with --json one JSON object per line), until\n"
        "interrupted: Ctrl-C or SIGTERM end it with exit code 0. Needs the D-Bus\n"
        "session bus ($DBUS_SESSION_BUS_ADDRESS)."),
     Waits::No,
     [](CLI::App& command, Arguments& arguments) {
         command.add_option("--count", arguments.count, tr("Stop after this many notifications"))
             ->type_name("N")
             ->check(CLI::PositiveNumber);
     },
     [](const Arguments& arguments, Report& report) {
         runWatch(arguments.common,
                  arguments.count > 0 ? std::optional<int64_t>(arguments.count) : std::nullopt,
                  report);
     }},
    {"gnome-web",
     N_("Let GNOME Web block by the active profile (on, off), or show whether it does"),
     N_("\"on\" adds the active profile's compiled rule list to GNOME Web's content\n"
        "filters (the content-filters setting of org.gnome.Epiphany), next to the lists\n"
        "already there, and turns its ad blocker on; after every compile and reload,\n"
        "here or in stonewall-browser, GNOME Web gets the new list. \"off\" takes the\n"
        "list out again and gives back the values that were there. \"status\" (or no\n"
        "state) shows the setting. Needs GNOME Web's settings schema (the epiphany-browser\n"
        "package) and the D-Bus session bus."),
     Waits::Yes,
     [](CLI::App& command, Arguments& arguments) {
         command.add_option("state", arguments.state, tr("on, off or status (the default)"))
             ->check(CLI::IsMember({"on", "off", "status"}));
     },
     [](const Arguments& arguments, Report& report) {
         runGnomeWeb(arguments.common,
                     arguments.state.empty() || arguments.state == "status"
                         ? std::nullopt
                         : std::optional<std::string>(arguments.state),
                     report);
     }},
    {"info", N_("Show the container, versions, active profile, status and file sizes"),
     N_("Also the resource folder, the host's versions and the shared defaults that\n"
        "the content blocker reads on its next load."),
     Waits::No, nullptr,
     [](const Arguments& arguments, Report& report) { runInfo(arguments.common, report); }},
};

// CLI11's message in the user's language where its form is known (CLI11
// words its messages in English only); any other as CLI11 put it. `deepest`
// is the last subcommand that the words named.
Message usageMessage(const CLI::App& deepest, const CLI::ParseError& error) {
    const std::string what = error.what();
    const std::vector<std::string> rest = deepest.remaining();
    if (what == "A subcommand is required") {
        // With words left over, the first one is what is wrong: a mistyped
        // subcommand or an option that no command has.
        if (rest.empty()) return message(N_("a subcommand is required"));
        if (rest.front().starts_with("-")) {
            return message(N_("unknown option {0}"), {rest.front()});
        }
        return message(N_("unknown subcommand {0}"), {rest.front()});
    }
    static const std::regex required("(.+) is required");
    static const std::regex unexpected("The following arguments? (?:was|were) not expected: (.+)");
    static const std::regex notMember("(.+): (.+) not in \\{(.*)\\}");
    std::smatch match;
    if (std::regex_match(what, match, required)) {
        return message(N_("{0} is required"), {match.str(1)});
    }
    if (std::regex_match(what, match, unexpected)) {
        // CLI11 lists them last first.
        std::string words;
        for (const std::string& word : rest) words += (words.empty() ? "" : " ") + word;
        return message(N_("not expected: {0}"), {words.empty() ? match.str(1) : words});
    }
    if (std::regex_match(what, match, notMember)) {
        return message(N_("{0}: {1} is not one of {2}"),
                       {match.str(1), match.str(2), match.str(3)});
    }
    return what;
}

// "stonewall: usage: ..." and the subcommand whose help to read; with
// --json also the error object that every failing command prints.
int usageError(const CLI::App& app, const CLI::ParseError& error, bool json) {
    std::string command = "stonewall";
    const CLI::App* deepest = &app;
    for (const CLI::App* sub = &app; sub;) {
        const CLI::App* next = nullptr;
        for (const CLI::App* child : sub->get_subcommands()) {
            command += " " + child->get_name();
            next = child;
            deepest = child;
            break;
        }
        sub = next;
    }
    const Message reason = usageMessage(*deepest, error);
    if (json) {
        const size_t space = command.find(' ');
        std::cout << Json{{"command", space == std::string::npos ? "" : command.substr(space + 1)},
                          {"error", Json{{"exitCode", toInt(ExitCode::Usage)},
                                         {"subject", "usage"},
                                         {"message", reason.english}}}}
                         .dump()
                  << std::endl;
    }
    std::cerr << "stonewall: " << format(tr("usage: {0} (see {1} --help)"), {reason.local, command})
              << std::endl;
    return toInt(ExitCode::Usage);
}

// Adds every row of kSubcommands under its group; returns the rows' commands
// in the same order.
std::vector<CLI::App*> addSubcommands(CLI::App& app, Arguments& arguments) {
    std::vector<CLI::App*> commands;
    std::map<std::string_view, CLI::App*> groups;
    for (const Subcommand& row : kSubcommands) {
        const std::string_view path = row.path;
        const size_t space = path.rfind(' ');
        CLI::App* parent =
            space == std::string_view::npos ? &app : groups.at(path.substr(0, space));
        const std::string name(space == std::string_view::npos ? path : path.substr(space + 1));
        CLI::App* command = parent->add_subcommand(name, tr(row.summary));
        command->group(tr("Subcommands"));
        if (CLI::Option* help = command->get_help_ptr()) help->group(tr("Options"));
        if (row.details) {
            std::string details = tr(row.details);
            if (std::string_view(row.path) == "profile import") details += ImportBudget::kPolicy;
            command->footer("\n" + details + "\n" + tr(kFooter));
        }
        if (row.options) row.options(*command, arguments);
        addCommonOptions(command, arguments, row.waits);
        if (!row.run) {
            command->require_subcommand(1);
            groups[path] = command;
        }
        commands.push_back(command);
    }
    return commands;
}

// Runs the parsed subcommand; a failure becomes the report's "error" member
// and the line to print on stderr.
[[nodiscard]] ExitCode runParsed(const std::vector<CLI::App*>& commands, const Arguments& arguments,
                                 Report& report, std::string& failureLine) {
    ExitCode code = ExitCode::Ok;
    try {
        for (size_t index = 0; index < commands.size(); ++index) {
            if (kSubcommands[index].run && commands[index]->parsed()) {
                kSubcommands[index].run(arguments, report);
                break;
            }
        }
    } catch (const CommandFailure& failure) {
        code = failure.code();
        failureLine = failure.what();
        report.json["error"] = Json{{"exitCode", toInt(code)},
                                    {"subject", failure.subject()},
                                    {"message", failure.reason()}};
    } catch (const std::bad_alloc&) {
        code = ExitCode::Storage;
        failureLine = std::string("stonewall: ") +
                      tr("out of memory (the input is too large for the memory allowed)");
        report.json["error"] =
            Json{{"exitCode", toInt(code)}, {"subject", "memory"}, {"message", "out of memory"}};
    } catch (const std::exception& exception) {
        // Nothing should get here; if something does, say so plainly rather
        // than die with an uncaught exception.
        code = ExitCode::Storage;
        failureLine = "stonewall: " + format(tr("error: {0}"), {exception.what()});
        report.json["error"] =
            Json{{"exitCode", toInt(code)}, {"subject", "error"}, {"message", exception.what()}};
    }
    return code;
}

}  // namespace

int run(int argc, char** argv) {
    // Binds the catalogue before the first text is made.
    const platform::gnulinux::LinuxBundle catalogue;
    CLI::App app{tr(kDescription), "stonewall"};
    const auto formatter = app.get_formatter();
    for (const char* label :
         {N_("Usage"), N_("Positionals"), N_("OPTIONS"), N_("SUBCOMMAND"), N_("REQUIRED")}) {
        formatter->label(label, tr(label));
    }
    app.option_defaults()->group(tr("Options"));
    app.set_help_flag("-h,--help", tr("Print this help message and exit"));
    app.footer(tr(kFooter));
    app.require_subcommand(1);
    app.set_version_flag("--version", "stonewall " STONEWALL_VERSION,
                         tr("Display program version information and exit"));

    Arguments arguments;
    addCommonOptions(&app, arguments, Waits::No);
    const std::vector<CLI::App*> commands = addSubcommands(app, arguments);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::CallForAllHelp& help) {
        return app.exit(help);
    } catch (const CLI::CallForVersion& version) {
        return app.exit(version);
    } catch (const CLI::ParseError& error) {
        // Whether the words asked for --json, read from them: the parse
        // stopped before it stored every option.
        bool json = false;
        for (int index = 1; index < argc && std::string_view(argv[index]) != "--"; ++index) {
            json = json || std::string_view(argv[index]) == "--json";
        }
        return usageError(app, error, json);
    }

    // People at a terminal see what a slow command is doing; watch prints
    // its own lines as they come.
    std::string parsedPath;
    for (size_t index = 0; index < commands.size(); ++index) {
        if (kSubcommands[index].run && commands[index]->parsed())
            parsedPath = kSubcommands[index].path;
    }
    const char* verboseVariable = std::getenv("STONEWALL_VERBOSE");
    const bool verbose =
        arguments.common.verbose || (verboseVariable && std::string(verboseVariable) == "1");
    progress::start(!arguments.common.json && !verbose && parsedPath != "watch", parsedPath);

    Report report;
    std::string failureLine;
    const ExitCode code = runParsed(commands, arguments, report, failureLine);
    progress::stop();
    printReport(report, arguments.common.json ? ReportFormat::JSON : ReportFormat::Table,
                std::cout);
    if (!failureLine.empty()) std::cerr << failureLine << std::endl;
    return toInt(code);
}

}  // namespace stonewall::tool
