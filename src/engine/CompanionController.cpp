// The engine's public face: every operation goes to the part that owns it.

#include "engine/CompanionController.h"

#include <utility>

namespace stonewall {

CompanionController::CompanionController() = default;

// --- Rule compiler --------------------------------------------------------------

void CompanionController::addUniqueRule(const ProfileRule& rule,
                                        std::vector<ContentBlockerRule>& profileRules,
                                        UniqueRules& uniqueRules) {
    RuleCompiler::addUniqueRule(rule, profileRules, uniqueRules);
}

std::vector<ContentBlockerRule> CompanionController::readProfileRules(
    const NullableString& profileID, const std::shared_ptr<ProfileDatabase>& profileDatabase) {
    return RuleCompiler::readProfileRules(profileID, profileDatabase);
}

void CompanionController::writeProfileRules(
    const NullableString& profileID, const std::shared_ptr<ProfileDatabase>& profileDatabase) {
    RuleCompiler::writeProfileRules(profileID, profileDatabase);
}

void CompanionController::writeProfileRules(const NullableString& profileID,
                                            const std::shared_ptr<ProfileDatabase>& profileDatabase,
                                            CompileReport* report) {
    RuleCompiler::writeProfileRules(profileID, profileDatabase, report);
}

std::vector<std::string> CompanionController::readWebsitesRules(
    const NullableString& profileID, int64_t action,
    const std::shared_ptr<ProfileDatabase>& profileDatabase) {
    return RuleCompiler::readWebsitesRules(profileID, action, profileDatabase);
}

void CompanionController::reloadBlockerRules(const NullableString& profileID,
                                             std::shared_ptr<ProfileDatabase> profileDatabase,
                                             CompletionHandler completionHandler) {
    RuleCompiler::reloadBlockerRules(profileID, std::move(profileDatabase),
                                     std::move(completionHandler));
}

void CompanionController::reloadBlockerRules(const NullableString& profileID,
                                             std::shared_ptr<ProfileDatabase> profileDatabase,
                                             CompletionHandler completionHandler,
                                             CompileReport* report) {
    RuleCompiler::reloadBlockerRules(profileID, std::move(profileDatabase),
                                     std::move(completionHandler), report);
}

platform::Nanoseconds CompanionController::settleDelay() { return RuleCompiler::settleDelay(); }

bool CompanionController::hostReloadsContentBlockers() {
    return RuleCompiler::hostReloadsContentBlockers();
}

int64_t CompanionController::setCurrentSafariServices() const {
    return RuleCompiler::setCurrentSafariServices();
}

// --- Custom rules -------------------------------------------------------------------

void CompanionController::createVisualCustomRules(const std::vector<DataElement>& elements,
                                                  CompletionHandler completionHandler) {
    customRules_.createVisualCustomRules(elements, std::move(completionHandler));
}

std::optional<SharedCustomRule> CompanionController::createVisualCustomRule(
    const NullableString& host, const DataElement& dataElement) {
    return CustomRules::createVisualCustomRule(host, dataElement);
}

SharedCustomRule CompanionController::hideCustomRule(const NullableString& host,
                                                     const NullableString& selector) {
    return CustomRules::hideCustomRule(host, selector);
}

SharedCustomRule CompanionController::blockCustomRule(const NullableString& host,
                                                      const NullableString& escapedURL,
                                                      const NullableString& filterDomain) {
    return CustomRules::blockCustomRule(host, escapedURL, filterDomain);
}

NullableString CompanionController::escapeData(const NullableString& text) {
    return CustomRules::escapeData(text);
}

NullableString CompanionController::unescapeData(const NullableString& text) {
    return CustomRules::unescapeData(text);
}

bool CompanionController::checkTagSource(const NullableString& tag) {
    return CustomRules::checkTagSource(tag);
}

NullableString CompanionController::getElementSource(const NullableString& elementSource,
                                                     const NullableString& elementCurrentSource) {
    return CustomRules::getElementSource(elementSource, elementCurrentSource);
}

void CompanionController::processCustomRules(std::vector<SharedCustomRule> rules) {
    customRules_.processCustomRules(std::move(rules));
}

// --- Website lists ------------------------------------------------------------------

void CompanionController::createBlockWebsiteCustomRule(const NullableString& url,
                                                       CompletionHandler completionHandler) {
    websiteLists_.createBlockWebsiteCustomRule(url, std::move(completionHandler));
}

void CompanionController::createSecureWebsiteCustomRule(const NullableString& url,
                                                        CompletionHandler completionHandler) {
    websiteLists_.createSecureWebsiteCustomRule(url, std::move(completionHandler));
}

void CompanionController::createWhitelistWebsiteCustomRule(const NullableString& url,
                                                           CompletionHandler completionHandler) {
    websiteLists_.createWhitelistWebsiteCustomRule(url, std::move(completionHandler));
}

SharedCustomRule CompanionController::blockWebsiteCustomRule(const NullableString& host) const {
    return websiteLists_.blockWebsiteCustomRule(host);
}

SharedCustomRule CompanionController::secureWebsiteCustomRule(const NullableString& host) const {
    return websiteLists_.secureWebsiteCustomRule(host);
}

SharedCustomRule CompanionController::whitelistWebsiteCustomRule(const NullableString& host) const {
    return websiteLists_.whitelistWebsiteCustomRule(host);
}

int64_t CompanionController::getWebsitesStatusShared(int64_t action) const {
    return websiteLists_.getWebsitesStatusShared(action);
}

void CompanionController::updateWebsitesStatusShared(int64_t action) {
    websiteLists_.updateWebsitesStatusShared(action);
}

bool CompanionController::checkWebsiteExists(const NullableString& host, int64_t action) const {
    return websiteLists_.checkWebsiteExists(host, action);
}

std::vector<bool> CompanionController::checkWebsiteExists(const NullableString& host,
                                                          std::span<const int64_t> actions) const {
    return websiteLists_.checkWebsiteExists(host, actions);
}

bool CompanionController::checkDomainInWebsiteList(const NullableString& website,
                                                   const NullableString& domain,
                                                   int64_t action) const {
    return websiteLists_.checkDomainInWebsiteList(website, domain, action);
}

bool CompanionController::checkBlockWebsite(const SharedCustomRule& rule, int64_t total) {
    return WebsiteLists::checkBlockWebsite(rule, total);
}

bool CompanionController::checkDomainsShareOrigin(const NullableString& host,
                                                  const NullableString& childDomain) {
    return WebsiteLists::checkDomainsShareOrigin(host, childDomain);
}

NullableString CompanionController::extractDomainData(const NullableString& host) {
    return WebsiteLists::extractDomainData(host);
}

std::string CompanionController::reverseDomain(std::string_view host) {
    return WebsiteLists::reverseDomain(host);
}

NullableString CompanionController::hostFromURL(const NullableString& url) {
    return WebsiteLists::hostFromURL(url);
}

// --- Lifecycle and status -------------------------------------------------------------

void CompanionController::changeStatus(CompletionHandler completionHandler) {
    state_.changeStatus(std::move(completionHandler));
}

void CompanionController::activateProfile(const NullableString& profileID,
                                          CompletionHandler completionHandler) {
    state_.activateProfile(profileID, std::move(completionHandler));
}

void CompanionController::sendUpdateNotification() { CompanionState::sendUpdateNotification(); }

}  // namespace stonewall
