// pick: the road of a "VisualData" page message, from the picked elements to
// custom rules and the reload.

#include "CommandSupport.h"
#include "Commands.h"
#include "Failure.h"
#include "InputFile.h"
#include "model/RuleCodes.h"

namespace stonewall::tool {
namespace {

// Pattern characters that the rule's escaping leaves as they are, and
// control characters.
constexpr const char* kUnescapedPatternCharacters =
    "\\$(){}[]\x01\x02\x03\x04\x05\x06\x07\x08\t\n\x0b\x0c\r\x0e\x0f\x10\x11\x12"
    "\x13\x14\x15\x16\x17\x18\x19\x1a\x1b\x1c\x1d\x1e\x1f\x7f";
// Far above any real media address; a longer one is a data URL or garbage.
constexpr size_t kMaximumSourceLength = 8192;

}  // namespace

void runPick(const CommonOptions& common, const std::string& pageURL, const std::string& file,
             Report& report) {
    report.json["command"] = "pick";
    // Everything the user gave is checked before the engine is made.
    const std::string host = requirePageURL(pageURL).host;
    std::vector<DataElement> elements =
        elementsFromMessageData(readInputFile(file), inputName(file));
    // The page's own value at position 0 is never used: the elements were
    // picked on the page that sent them.
    for (auto& element : elements) element.location = host;

    // A source becomes a regular expression with only some characters
    // escaped; one WebKit cannot compile would make it refuse every later
    // list, so such an element is refused here, before anything is stored.
    for (size_t index = 0; index < elements.size(); ++index) {
        const DataElement& element = elements[index];
        if (!CompanionController::checkTagSource(element.tag)) continue;
        const NullableString source =
            CompanionController::getElementSource(element.source, element.currentSource);
        if (!source) continue;
        const Message subject =
            message(N_("{0}: element {1}"), {inputName(file), std::to_string(index)});
        if (source->size() > kMaximumSourceLength) {
            throw CommandFailure(ExitCode::BadInput, subject,
                                 message(N_("its source is longer than {0} bytes"),
                                         {std::to_string(kMaximumSourceLength)}));
        }
        if (source->find_first_of(kUnescapedPatternCharacters) != std::string::npos) {
            throw CommandFailure(ExitCode::BadInput, subject,
                                 message(N_("its source holds a character a rule cannot match "
                                            "exactly (\\ $ ( ) { } [ ] or a control character)")));
        }
    }

    int64_t hideRules = 0;
    int64_t blockRules = 0;
    for (const auto& element : elements) {
        const auto rule = CompanionController::createVisualCustomRule(element.location, element);
        if (!rule) continue;
        if (rule->action == ActionCode::kHide) ++hideRules;
        if (rule->action == ActionCode::kBlock) ++blockRules;
    }
    const int64_t skipped = static_cast<int64_t>(elements.size()) - hideRules - blockRules;

    Session session(common);
    // A fresh engine for the message, as the extension handler makes one.
    auto engine = session.openEngine();
    const std::string profileID = requireActiveProfile(*engine->sharedData());

    const int64_t failuresBefore = session.storageFailures();
    CompileReport compile;
    const ReloadRun run =
        ReloadRequest(session, &compile)
            .run([&](CompletionHandler then) { engine->createVisualCustomRules(elements, then); },
                 activeProfileOf(*engine));

    report.add("page", tr("page"), host);
    report.add("profile", tr("profile"), profileID);
    report.add("elements", elements.size(), tr("elements"), std::to_string(elements.size()));
    report.json["hideRules"] = hideRules;
    report.json["blockRules"] = blockRules;
    report.json["skipped"] = skipped;
    std::string newRules =
        format(tr("{0} hide, {1} block"), {std::to_string(hideRules), std::to_string(blockRules)});
    if (skipped) {
        newRules = format(tr("{0}, {1} skipped (media without a usable source)"),
                          {newRules, std::to_string(skipped)});
    }
    report.table.add(tr("new rules"), newRules);
    // The rules written are shown also when the picked rules turn out unstored.
    describeRuleFile(run, compile, report);
    requireStored(
        session, failuresBefore, [] { return true; }, message(N_("the picked elements' rules")));
    finishReload(run, &compile, report);
}

}  // namespace stonewall::tool
