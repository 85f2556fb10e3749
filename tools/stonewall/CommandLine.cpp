#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <new>
#include <string>

#include "ApplicationCommands.h"
#include "Commands.h"
#include "Failure.h"
#include "Report.h"

#ifndef STONEWALL_VERSION
#define STONEWALL_VERSION "unknown"
#endif

namespace stonewall::tool {
namespace {

constexpr const char* kDescription =
    "Compile the active Stonewall blocker profile into the content-blocker rule list and "
    "reload the content blocker; block, secure or allow websites, pick page elements, switch "
    "blocking and profiles, as the browser extension does.";

constexpr const char* kFooter = R"(
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
  5  a system service is missing (watch without a D-Bus session bus)

Environment: STONEWALL_CONTAINER (the container, --container wins),
STONEWALL_RESOURCES (the template databases), STONEWALL_VERBOSE=1 (as -v);
docs/environment.md lists the others.)";

struct Arguments {
    CommonOptions common;
    CompileOptions compile;
    std::string compileProfile;
    std::string state;
    std::string profileID;
    std::string url;
    std::string pageURL;
    std::string file;
    std::string name;
    int64_t count = 0;
};

enum class Waits { No, Yes };

// An empty value would silently mean "the default"; say so instead.
CLI::Validator NotEmpty() {
    return CLI::Validator(
        [](std::string& value) { return value.empty() ? std::string("must not be empty") : ""; },
        "", "NotEmpty");
}

void addCommonOptions(CLI::App* command, Arguments& arguments, Waits waits) {
    command
        ->add_option("--container", arguments.common.container,
                     "The application-group container to use (created when missing); default "
                     "$STONEWALL_CONTAINER, else "
                     "$XDG_DATA_HOME/stonewall/containers/K7Q2XJ4M9P.com.mapleharbor.Stonewall")
        ->type_name("DIR")
        ->check(NotEmpty());
    command->add_flag("--json", arguments.common.json,
                      "Print one JSON object instead of the table");
    command->add_flag("-v,--verbose", arguments.common.verbose,
                      "Debug logging on stderr (storage and engine diagnostics)");
    if (waits == Waits::Yes) {
        command
            ->add_option("--timeout", arguments.common.timeoutSeconds,
                         "Seconds to wait for the content blocker's answer before giving up")
            ->type_name("SECONDS")
            ->check(CLI::PositiveNumber)
            ->capture_default_str();
    }
}

// The subcommand's own help text, before the exit codes.
void explain(CLI::App* command, const std::string& details) {
    command->footer("\n" + details + "\n" + kFooter);
}

// "stonewall: usage: ..." and the subcommand whose help to read.
int usageError(const CLI::App& app, const CLI::ParseError& error) {
    std::string command = "stonewall";
    for (const CLI::App* sub = &app; sub;) {
        const CLI::App* next = nullptr;
        for (const CLI::App* child : sub->get_subcommands()) {
            command += " " + child->get_name();
            next = child;
            break;
        }
        sub = next;
    }
    std::cerr << "stonewall: usage: " << error.what() << " (see " << command << " --help)"
              << std::endl;
    return toInt(ExitCode::Usage);
}

}  // namespace

int run(int argc, char** argv) {
    CLI::App app{kDescription, "stonewall"};
    app.footer(kFooter);
    app.require_subcommand(1);
    app.set_version_flag("--version", "stonewall " STONEWALL_VERSION);

    Arguments arguments;
    addCommonOptions(&app, arguments, Waits::No);

    auto* compile = app.add_subcommand(
        "compile", "Compile the active profile into its rule list and reload the content blocker");
    explain(compile,
            "Reads the profile's rules action by action (5, 1, 4, 2, 3, 6, 7, 8), drops\n"
            "duplicates, caps the list at 50000 rules, writes\n"
            "<container>/.Profiles/profile_<ID>_unarchive.json and asks the content blocker\n"
            "to reload. Prints the rules read per action, duplicates dropped, rules capped,\n"
            "rules and bytes written, the time taken and the reload outcome.");
    CLI::Option* compileProfile =
        compile
            ->add_option("--profile", arguments.compileProfile,
                         "Compile this profile instead of the active one (a profile identifier "
                         "of the shared record); with a reload the browser then loads it")
            ->type_name("ID");
    compile->add_flag("--no-reload", arguments.compile.noReload,
                      "Only write the rule file; no reload is asked for (for pipelines that "
                      "prepare lists without a browser)");
    addCommonOptions(compile, arguments, Waits::Yes);

    auto* status = app.add_subcommand("status", "Show, or switch on or off, content blocking");
    explain(status,
            "Without a state, shows it. \"on\" or \"off\" store the new status, notify the\n"
            "main application and reload the content blocker; switching to the state it\n"
            "is already in changes nothing and says so.");
    status->add_option("state", arguments.state, "on or off")->check(CLI::IsMember({"on", "off"}));
    addCommonOptions(status, arguments, Waits::Yes);

    auto* profile = app.add_subcommand(
        "profile", "List, activate, create, rename or remove blocker profiles; import lists");
    profile->require_subcommand(1);
    addCommonOptions(profile, arguments, Waits::No);
    auto* profileList = profile->add_subcommand(
        "list", "List the profiles of the shared record; * marks the active one");
    addCommonOptions(profileList, arguments, Waits::No);
    auto* profileActivate = profile->add_subcommand(
        "activate", "Make a profile the active one, compile its rules and reload");
    explain(profileActivate,
            "The identifier must be one of the shared record's profiles (see profile list).\n"
            "Activating the active profile changes nothing.");
    profileActivate->add_option("ID", arguments.profileID, "Profile identifier (see profile list)")
        ->required();
    addCommonOptions(profileActivate, arguments, Waits::Yes);

    struct WebsiteCommand {
        const char* name;
        WebsiteList list;
        const char* help;
    };
    const WebsiteCommand websiteCommands[] = {
        {"block", WebsiteList::Block,
         "Add the URL's host to the block list of the active profile and reload"},
        {"secure", WebsiteList::Secure,
         "Add the URL's host to the secure (HTTPS only) list of the active profile and reload"},
        {"allow", WebsiteList::Allow,
         "Add the URL's host to the allow list of the active profile (no blocking there) and "
         "reload"},
    };
    std::vector<std::pair<CLI::App*, WebsiteList>> websites;
    for (const auto& website : websiteCommands) {
        auto* command = app.add_subcommand(website.name, website.help);
        command->add_option("URL", arguments.url, "The page URL, e.g. https://example.com/")
            ->required();
        addCommonOptions(command, arguments, Waits::Yes);
        websites.emplace_back(command, website.list);
    }

    const WebsiteCommand removeCommands[] = {
        {"unblock", WebsiteList::Block, "Take the URL's host off the block list and reload"},
        {"unsecure", WebsiteList::Secure, "Take the URL's host off the secure list and reload"},
        {"unallow", WebsiteList::Allow, "Take the URL's host off the allow list and reload"},
    };
    std::vector<std::pair<CLI::App*, WebsiteList>> removals;
    for (const auto& website : removeCommands) {
        auto* command = app.add_subcommand(website.name, website.help);
        explain(command,
                "Removes the host from the list rule of the active profile and from the\n"
                "shared custom rules, then tidies the lists and reloads. A host that is not\n"
                "on the list changes nothing and says so.");
        command->add_option("URL", arguments.url, "The page URL, e.g. https://example.com/")
            ->required();
        addCommonOptions(command, arguments, Waits::Yes);
        removals.emplace_back(command, website.list);
    }

    auto* lists = app.add_subcommand("lists", "Upkeep of the website lists");
    lists->require_subcommand(1);
    addCommonOptions(lists, arguments, Waits::No);
    auto* listsTidy = lists->add_subcommand(
        "tidy", "Merge each website list into one rule and mark it so new hosts join it");
    explain(listsTidy,
            "Merges all list rules of the block, allow and secure lists into one rule\n"
            "each, keeping every host once, and sets the list's position of the shared\n"
            "\"domainStatus\" to 1, so that check sees every host and new hosts are merged\n"
            "into that rule. Runs after every block, secure, allow and unblock as well.\n"
            "A list whose status is 0 (kept in the shared database only) is left alone.");
    addCommonOptions(listsTidy, arguments, Waits::Yes);

    auto* profileCreate = profile->add_subcommand("create", "Create an empty blocker profile");
    explain(profileCreate,
            "The name must not be empty, hold a \",\" or be longer than 40 characters.\n"
            "Prints the new profile's identifier.");
    profileCreate->add_option("NAME", arguments.name, "The profile's name")->required();
    addCommonOptions(profileCreate, arguments, Waits::No);
    auto* profileRename = profile->add_subcommand("rename", "Rename a blocker profile");
    profileRename->add_option("ID", arguments.profileID, "Profile identifier (see profile list)")
        ->required();
    profileRename->add_option("NAME", arguments.name, "The new name")->required();
    addCommonOptions(profileRename, arguments, Waits::No);
    auto* profileRemove = profile->add_subcommand(
        "remove", "Remove a blocker profile with its rules (not the active or the last one)");
    profileRemove->add_option("ID", arguments.profileID, "Profile identifier (see profile list)")
        ->required();
    addCommonOptions(profileRemove, arguments, Waits::No);
    auto* profileImport = profile->add_subcommand(
        "import", "Add the rules of an adblock filter list (EasyList syntax) to a profile");
    explain(profileImport,
            "Reads \"!\" comments, \"||host^\" and \"|\" anchors, \"*\" and \"^\", \"$\" options\n"
            "(resource types, third-party, domain= with ~, match-case, cookie,\n"
            "csp=upgrade-insecure-requests), \"@@\" exceptions and \"##\"/\"#@#\" element\n"
            "hiding. Lines WebKit cannot express are skipped and counted by reason; rules\n"
            "the profile holds already are not added again. The active profile is\n"
            "compiled and reloaded.");
    profileImport->add_option("ID", arguments.profileID, "Profile identifier (see profile list)")
        ->required();
    profileImport->add_option("FILE", arguments.file, "The filter list, or - for standard input")
        ->required();
    addCommonOptions(profileImport, arguments, Waits::Yes);

    auto* openURL = app.add_subcommand(
        "open-url", "Show what the application shows for a stonewall:// URL");
    explain(openURL,
            "The URLs: stonewall://status, activate, blockwebsite, securewebsite,\n"
            "whitelistwebsite, visual and open.");
    openURL->add_option("URL", arguments.url, "A stonewall:// URL")->required();
    addCommonOptions(openURL, arguments, Waits::No);

    auto* check = app.add_subcommand(
        "check", "Tell whether the URL's host is on the block, secure and allow lists");
    explain(check,
            "Exact membership of the host (IDNA-encoded, as the lists hold it), as the\n"
            "popover tests it before it offers its buttons.");
    check->add_option("URL", arguments.url, "The page URL, e.g. https://example.com/")->required();
    addCommonOptions(check, arguments, Waits::No);

    auto* pick =
        app.add_subcommand("pick", "Turn picked page elements into custom rules and reload");
    explain(pick,
            "FILE holds the \"data\" of a \"VisualData\" page message (or its whole user\n"
            "info, {\"data\": [...]}): a JSON array with one array of 9 strings per element:\n"
            "location, tag, selector, source, currentSource, parent tag, parent selector,\n"
            "parent source, parent currentSource. The location becomes the --page host.\n"
            "Ordinary elements become hide rules, images and media with a source block\n"
            "rules. A file with any malformed entry is refused as a whole.");
    pick->add_option("--page", arguments.pageURL, "URL of the page the elements were picked on")
        ->required()
        ->type_name("URL");
    pick->add_option("FILE", arguments.file, "The element file, or - for standard input")
        ->required();
    addCommonOptions(pick, arguments, Waits::Yes);

    auto* validate = app.add_subcommand(
        "validate", "Compile a content-blocker JSON file with WebKit and report its verdict");
    explain(validate,
            "WebKit rejects a whole list for one bad rule without saying which; validate\n"
            "then compiles prefixes of the list to find the first rule it rejects\n"
            "(O(log n) compiles) and prints its index, the rule and WebKit's message.\n"
            "Nothing in the container is touched (it compiles into a temporary store).");
    validate->add_option("FILE", arguments.file, "The rule list, or - for standard input")
        ->required();
    addCommonOptions(validate, arguments, Waits::No);

    auto* watch =
        app.add_subcommand("watch", "Print each \"extensionUpdate\" notification as it arrives");
    explain(watch,
            "One line per notification (with --json one JSON object per line), until\n"
            "interrupted: Ctrl-C or SIGTERM end it with exit code 0. Needs the D-Bus\n"
            "session bus ($DBUS_SESSION_BUS_ADDRESS).");
    watch->add_option("--count", arguments.count, "Stop after this many notifications")
        ->type_name("N")
        ->check(CLI::PositiveNumber);
    addCommonOptions(watch, arguments, Waits::No);

    auto* info = app.add_subcommand(
        "info", "Show the container, versions, active profile, status and file sizes");
    explain(info,
            "Also the resource folder, the host's versions and the shared defaults that\n"
            "the content blocker reads on its next load.");
    addCommonOptions(info, arguments, Waits::No);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::CallForAllHelp& help) {
        return app.exit(help);
    } catch (const CLI::CallForVersion& version) {
        return app.exit(version);
    } catch (const CLI::ParseError& error) {
        return usageError(app, error);
    }

    if (compileProfile->count() > 0) arguments.compile.profile = arguments.compileProfile;

    Report report;
    const CommonOptions& common = arguments.common;
    ExitCode code = ExitCode::Ok;
    std::string failureLine;
    try {
        if (compile->parsed()) {
            runCompile(common, arguments.compile, report);
        } else if (status->parsed()) {
            runStatus(common,
                      arguments.state.empty() ? std::nullopt
                                              : std::optional<std::string>(arguments.state),
                      report);
        } else if (profileList->parsed()) {
            runProfileList(common, report);
        } else if (profileActivate->parsed()) {
            runProfileActivate(common, arguments.profileID, report);
        } else if (check->parsed()) {
            runCheck(common, arguments.url, report);
        } else if (pick->parsed()) {
            runPick(common, arguments.pageURL, arguments.file, report);
        } else if (validate->parsed()) {
            runValidate(common, arguments.file, report);
        } else if (watch->parsed()) {
            runWatch(common,
                     arguments.count > 0 ? std::optional<int64_t>(arguments.count) : std::nullopt,
                     report);
        } else if (info->parsed()) {
            runInfo(common, report);
        } else if (listsTidy->parsed()) {
            runListsTidy(common, report);
        } else if (profileCreate->parsed()) {
            runProfileCreate(common, arguments.name, report);
        } else if (profileRename->parsed()) {
            runProfileRename(common, arguments.profileID, arguments.name, report);
        } else if (profileRemove->parsed()) {
            runProfileRemove(common, arguments.profileID, report);
        } else if (profileImport->parsed()) {
            runProfileImport(common, arguments.profileID, arguments.file, report);
        } else if (openURL->parsed()) {
            runOpenURL(common, arguments.url, report);
        } else {
            for (const auto& [command, list] : removals) {
                if (command->parsed()) runRemoveWebsite(common, list, arguments.url, report);
            }
            for (const auto& [command, list] : websites) {
                if (command->parsed()) runWebsite(common, list, arguments.url, report);
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
        failureLine = "stonewall: out of memory (the input is too large for the memory allowed)";
        report.json["error"] = Json{{"exitCode", toInt(code)}, {"subject", "memory"},
                                    {"message", "out of memory"}};
    } catch (const std::exception& exception) {
        // Nothing should get here; if something does, say so plainly rather
        // than die with an uncaught exception.
        code = ExitCode::Storage;
        failureLine = std::string("stonewall: error: ") + exception.what();
        report.json["error"] =
            Json{{"exitCode", toInt(code)}, {"subject", "error"}, {"message", exception.what()}};
    }

    printReport(report, common.json, std::cout);
    if (!failureLine.empty()) std::cerr << failureLine << std::endl;
    return toInt(code);
}

}  // namespace stonewall::tool
