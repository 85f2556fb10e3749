// validate: WebKit's verdict on any content-blocker list, and which rule it
// rejects when it rejects one.

#include <stdlib.h>

#include <cerrno>
#include <filesystem>

#include "Commands.h"
#include "Failure.h"
#include "InputFile.h"
#include "platform/RuleListBisect.h"
#include "platform/linux/WebKitContentBlockerManager.h"

namespace stonewall::tool {
namespace fs = std::filesystem;
namespace {

// Validation compiles into a store of its own, so that it never replaces a
// list the content blocker uses.
class TemporaryStore {
  public:
    TemporaryStore() {
        std::error_code error;
        std::string pattern =
            (fs::temp_directory_path(error) / "stonewall-validate-XXXXXX").string();
        if (error || !::mkdtemp(pattern.data())) {
            throw CommandFailure(ExitCode::Storage, message(N_("temporary folder")),
                                 message(N_("cannot be created: {0}"), {systemMessage(errno)}));
        }
        path_ = pattern;
    }
    ~TemporaryStore() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    TemporaryStore(const TemporaryStore&) = delete;
    TemporaryStore& operator=(const TemporaryStore&) = delete;
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

constexpr const char* kIdentifier = "com.mapleharbor.osx.Stonewall.Validation";

}  // namespace

void runValidate(const CommonOptions& /*common*/, const std::string& file, Report& report) {
    report.json["command"] = "validate";
    const Message name = inputName(file);
    const std::string text = readInputFile(file);
    // Not an array is the caller's mistake, not WebKit's verdict: say so
    // without asking WebKit.
    const nlohmann::json list = parseJSONArray(text, name);

    report.json["file"] = name.english;
    report.json["rules"] = list.size();
    report.table.add(tr("file"), name.local);
    report.table.add(tr("rules"), std::to_string(list.size()));

    const TemporaryStore store;
    int64_t compiles = 0;
    auto compile = [&](const std::string& json) {
        ++compiles;
        return platform::gnulinux::WebKitContentBlockerManager::compileRuleList(store.path(),
                                                                                kIdentifier, json);
    };

    // The verdict is on the file as it is.
    const std::optional<Error> verdict = compile(text);
    if (!verdict) {
        report.json["accepted"] = true;
        report.json["compiles"] = compiles;
        report.table.add(tr("verdict"), tr("accepted by WebKit"));
        return;
    }

    // WebKit refuses an empty list too; its verdict on one tells "no usable
    // rule yet" from a rule at fault.
    const std::optional<Error> emptyListVerdict = compile("[]");
    const platform::RejectedRule rejected =
        platform::findFirstRejectedRule(list.size(), *verdict, emptyListVerdict, [&](size_t count) {
            nlohmann::json prefix = nlohmann::json::array();
            for (size_t index = 0; index < count; ++index) prefix.push_back(list[index]);
            return compile(prefix.dump());
        });

    report.json["accepted"] = false;
    report.table.add(tr("verdict"), tr("rejected by WebKit"));
    if (rejected.index) {
        report.json["rejectedIndex"] = *rejected.index;
        report.json["rejectedRule"] = list[*rejected.index];
        report.table.add(tr("culprit"), format(tr("rule {0} (counting from 0)"),
                                               {std::to_string(*rejected.index)}));
        report.table.add(tr("rule"), compactJSON(list[*rejected.index]));
    } else {
        report.table.add(tr("culprit"), list.empty()
                                            ? tr("none: the list is empty")
                                            : tr("none: WebKit finds no usable rule in the list"));
    }
    report.json["webkitError"] = errorJSON(rejected.error);
    report.json["compiles"] = compiles;
    // WebKit's message, in English.
    report.table.add(tr("message"), rejected.error.message);
    report.table.add(tr("compiles"), std::to_string(compiles));

    throw CommandFailure(ExitCode::Reload, name,
                         rejected.index
                             ? message(N_("rule {0} rejected by WebKit: {1}"),
                                       {std::to_string(*rejected.index), rejected.error.message})
                             : message(N_("rejected by WebKit: {0}"), {rejected.error.message}));
}

}  // namespace stonewall::tool
