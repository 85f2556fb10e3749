// The compiler: a blocker profile's rules -> the content-blocker rule list
// file, and the two-phase reload of the content blocker.

#include "engine/RuleCompiler.h"

#include <array>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <new>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "engine/RuleKeySet.h"
#include "engine/TextComponents.h"
#include "platform/Platform.h"
#include "storage/FileHandler.h"
#include "storage/SharedDatabase.h"

namespace stonewall {

namespace {

// Sizes the dedupe table up front; it doubles as a large profile needs.
constexpr size_t kExpectedRuleCount = 8192;
// The JSON goes to the file in pieces of about this size: a list of any
// length then costs one small buffer, and the writes overlap the reading.
constexpr size_t kOutputPieceBytes = size_t{128} << 10;

constexpr auto kSettleDelayBigSur = std::chrono::nanoseconds(0);
constexpr auto kSettleDelayHighSierra = std::chrono::nanoseconds(3000000000);
constexpr auto kSettleDelayOlder = std::chrono::nanoseconds(2000000000);

// An empty list makes the content blocker fail to load; this rule keeps the
// list non-empty and matches nothing real.
ContentBlockerRule placeholderRule() {
    ContentBlockerRule rule;
    rule.action.type = "block";
    rule.trigger.urlFilter = "ockit.svg";
    return rule;
}

// The active profile of the shared record when no profile is named. The
// shared database is closed afterwards, as the rest of the product expects of
// the compiler; the front reconnects it when its next read comes back empty.
NullableString resolveProfileID(const NullableString& profileID) {
    if (profileID) return profileID;
    SharedDatabase& shared = SharedDatabase::sharedInstance();
    std::optional<SharedData> data = shared.getSharedData();
    shared.close();
    return data ? data->activeProfileID : std::nullopt;
}

std::string ruleListFileName(const NullableString& profileID) {
    return ContainerLayout::ruleListFileName(textOrNull(profileID));
}

// The dedupe, cap and conversion of writeProfileRules, rule by rule in list
// order; the same decisions as addUniqueRule. Only the dedupe keys outlive a
// rule; converted rules go straight into the JSON buffer.
class RuleListBuilder {
  public:
    explicit RuleListBuilder(ContentBlockerRuleListWriter& writer)
        : writer_(writer), uniqueRules_(kExpectedRuleCount) {
        key_.reserve(512);
    }

    void add(const ProfileRule& rule) {
        key_.clear();
        rule.appendHash(key_);
        if (!uniqueRules_.insert(key_)) {
            ++duplicates_;
            return;
        }
        if (count_ >= kMaximumRuleCount) {
            ++capped_;
            return;
        }
        writer_.add(rule.convertToSafariData2());
        ++count_;
    }

    size_t count() const { return count_; }
    int64_t duplicates() const { return duplicates_; }
    int64_t capped() const { return capped_; }

  private:
    ContentBlockerRuleListWriter& writer_;
    RuleKeySet uniqueRules_;
    std::string key_;
    size_t count_ = 0;
    int64_t duplicates_ = 0;
    int64_t capped_ = 0;
};

// Reading rows out of SQLite and building the list take about three parts to
// one; on a large profile the building runs on a helper thread, fed with
// batches of rows in list order, so that it overlaps the reading. A small
// profile never starts the thread. The caller still gets the finished list
// before writeProfileRules returns.
class PipelinedRuleListBuilder {
  public:
    explicit PipelinedRuleListBuilder(ContentBlockerRuleListWriter& writer)
        : builder_(writer), filling_(kBatchSize) {}

    // Only stops the helper (when the reading side failed before finish).
    ~PipelinedRuleListBuilder() { stopWorker(); }

    // On the reading thread. The row's strings move into the batch, and the
    // reader gets the slot's old strings back to fill with the next row:
    // once the batches have gone round, a row costs no allocation and no
    // copy beyond SQLite's.
    void add(ProfileRule& rule) {
        std::swap(filling_[filled_++], rule);
        if (filled_ == kBatchSize) submit();
    }

    // Builds what is left and stops the helper. False when the helper ran out
    // of memory: the list is then incomplete.
    bool finish() {
        if (!worker_.joinable()) {
            for (size_t i = 0; i < filled_; ++i) builder_.add(filling_[i]);
            filled_ = 0;
            return !failed_;
        }
        if (filled_ > 0) submit();
        stopWorker();
        return !failed_;
    }

    const RuleListBuilder& builder() const { return builder_; }

  private:
    static constexpr size_t kBatchSize = 1024;
    static constexpr size_t kBatchesInFlight = 4;

    struct Batch {
        std::vector<ProfileRule> rules;
        size_t size = 0;
    };

    void submit() {
        if (!worker_.joinable() && !inline_) {
            try {
                worker_ = std::thread([this] { run(); });
            } catch (const std::system_error&) {
                inline_ = true;  // no thread to be had: build on this one
            }
        }
        if (inline_) {
            for (size_t i = 0; i < filled_; ++i) builder_.add(filling_[i]);
            filled_ = 0;
            return;
        }
        std::vector<ProfileRule> next;
        {
            std::unique_lock lock(mutex_);
            // Bounded, so that a slow builder cannot make the rows pile up.
            changed_.wait(lock, [this] { return ready_.size() < kBatchesInFlight; });
            ready_.push_back(Batch{std::move(filling_), filled_});
            if (!spare_.empty()) {
                next = std::move(spare_.back());
                spare_.pop_back();
            }
        }
        changed_.notify_all();
        if (next.empty()) next.resize(kBatchSize);
        filling_ = std::move(next);
        filled_ = 0;
    }

    void stopWorker() {
        if (!worker_.joinable()) return;
        {
            std::lock_guard lock(mutex_);
            done_ = true;
        }
        changed_.notify_all();
        worker_.join();
    }

    // On the helper thread.
    void run() {
        while (true) {
            Batch batch;
            {
                std::unique_lock lock(mutex_);
                changed_.wait(lock, [this] { return !ready_.empty() || done_; });
                if (ready_.empty()) return;
                batch = std::move(ready_.front());
                ready_.pop_front();
            }
            changed_.notify_all();
            if (!failed_) {
                try {
                    for (size_t i = 0; i < batch.size; ++i) builder_.add(batch.rules[i]);
                } catch (const std::bad_alloc&) {
                    // Out of memory: the reading side finishes, the list is
                    // dropped (see finish).
                    failed_ = true;
                }
            }
            std::lock_guard lock(mutex_);
            spare_.push_back(std::move(batch.rules));
        }
    }

    RuleListBuilder builder_;
    std::vector<ProfileRule> filling_;
    size_t filled_ = 0;

    std::thread worker_;
    bool inline_ = false;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Batch> ready_;
    std::vector<std::vector<ProfileRule>> spare_;
    bool done_ = false;
    std::atomic<bool> failed_ = false;
};

// The hot path of writeProfileRules: rows stream from SQLite into the JSON
// buffer. Returns the number of rules written, or none when the list could
// not be completed.
std::optional<size_t> compileInto(ProfileDatabase* database, ContentBlockerRuleListWriter& writer,
                                  CompileReport* report) {
    if (!database) return 0;
    PipelinedRuleListBuilder pipeline(writer);
    bool readAll = true;
    database->readAlone([&] {
        for (int64_t action : kCompileOrder) {
            int64_t read = 0;
            const bool complete =
                database->forEachProfileRuleByAction(action, [&](ProfileRule& rule) {
                    ++read;
                    pipeline.add(rule);
                });
            if (report) report->rulesReadByAction[static_cast<size_t>(action)] = read;
            if (!complete) {
                readAll = false;
                return;
            }
        }
    });
    if (!readAll) {
        if (report) {
            report->failure = database->lastReadFailure() == ProfileDatabase::ReadFailure::Locked
                                  ? CompileReport::Failure::DatabaseBusy
                                  : CompileReport::Failure::DatabaseUnreadable;
        }
        return std::nullopt;
    }
    const bool complete = pipeline.finish();
    if (report) {
        report->duplicatesDropped = pipeline.builder().duplicates();
        report->rulesDroppedByCap = pipeline.builder().capped();
    }
    if (!complete) {
        if (report) report->failure = CompileReport::Failure::OutOfMemory;
        return std::nullopt;
    }
    return pipeline.builder().count();
}

}  // namespace

int64_t CompileReport::rulesRead() const {
    int64_t total = 0;
    for (int64_t count : rulesReadByAction) total += count;
    return total;
}

void RuleCompiler::addUniqueRule(const ProfileRule& rule,
                                 std::vector<ContentBlockerRule>& profileRules,
                                 UniqueRules& uniqueRules) {
    // The key is recorded even when the cap refuses the rule: a later
    // duplicate of a refused rule is then a duplicate, not a second refusal.
    if (!uniqueRules.insert(rule.computeHash()).second) return;
    if (profileRules.size() < kMaximumRuleCount) {
        profileRules.push_back(rule.convertToSafariData2());
    }
}

std::vector<ContentBlockerRule> RuleCompiler::readProfileRules(
    const NullableString& profileID, const std::shared_ptr<ProfileDatabase>& profileDatabase) {
    // Only for its side effect on the shared database, as writeProfileRules.
    (void)resolveProfileID(profileID);
    std::vector<ContentBlockerRule> profileRules;
    UniqueRules uniqueRules;
    if (profileDatabase) {
        for (int64_t action : kCompileOrder) {
            (void)profileDatabase->forEachProfileRuleByAction(action, [&](const ProfileRule& rule) {
                addUniqueRule(rule, profileRules, uniqueRules);
            });
        }
    }
    if (profileRules.empty()) profileRules.push_back(placeholderRule());
    return profileRules;
}

void RuleCompiler::writeProfileRules(const NullableString& profileID,
                                     const std::shared_ptr<ProfileDatabase>& profileDatabase) {
    writeProfileRules(profileID, profileDatabase, nullptr);
}

void RuleCompiler::writeProfileRules(const NullableString& profileID,
                                     const std::shared_ptr<ProfileDatabase>& profileDatabase,
                                     CompileReport* report) {
    const FileHandler fileHandler = FileHandler::initWithNameAndGroup(
        std::string(ContainerLayout::kProfilesFolder), std::string(kApplicationGroup));
    const NullableString resolvedID = resolveProfileID(profileID);

    // The list streams into the file as it is built (on the compiler's
    // helper thread when there is one); the file replaces the old one only
    // when the whole list is in it.
    std::optional<size_t> compiled;
    int64_t bytes = 0;
    bool ran = false;
    CompileReport ownReport;
    if (!report) report = &ownReport;
    auto produce = [&](const DataSink& sink) {
        ran = true;
        bytes = 0;
        *report = CompileReport();
        std::string buffer;
        buffer.reserve(kOutputPieceBytes + 4096);
        bool sinkFailed = false;
        ContentBlockerRuleListWriter writer(
            buffer,
            [&](std::string_view piece) {
                bytes += static_cast<int64_t>(piece.size());
                if (!sinkFailed) sinkFailed = !sink(piece);
            },
            kOutputPieceBytes);
        compiled = compileInto(profileDatabase.get(), writer, report);
        if (compiled == size_t{0}) writer.add(placeholderRule());
        writer.finish();
        return compiled.has_value() && !sinkFailed;
    };
    const auto discard = [](std::string_view) { return false; };

    const std::string fileName = ruleListFileName(resolvedID);
    const bool unsafeName = resolvedID && !ContainerLayout::isSafeProfileIdentifier(*resolvedID);
    if (unsafeName) {
        FileHandler::logError("refusing to write a rule list for profile identifier " +
                              *resolvedID);
    }
    bool written = false;
    for (int attempt = 0; attempt < 2; ++attempt) {
        ran = false;
        if (!unsafeName) written = fileHandler.writeToURL(fileName, produce);
        // No file to write to: the report still tells what the list would be.
        if (!ran) (void)produce(discard);
        // A damaged page found while reading: the file is repaired (moved
        // aside, the readable rows carried over) and read once more.
        if (compiled || !profileDatabase ||
            profileDatabase->lastReadFailure() != ProfileDatabase::ReadFailure::Damaged) {
            break;
        }
        profileDatabase->restoreDatabase();
    }
    if (!compiled) {
        // A partial list would silently drop rules; the browser keeps the
        // last complete one instead.
        FileHandler::logError("the rule list could not be compiled completely; not written");
    }
    const size_t count = compiled.value_or(0);

    if (report) {
        report->profileID = resolvedID;
        report->rulesWritten = compiled ? static_cast<int64_t>(count == 0 ? 1 : count) : 0;
        report->placeholderUsed = compiled == size_t{0};
        report->bytesWritten = bytes;
        report->fileWritten = written;
        report->outputPath = fileHandler.getFilePath(fileName);
    }
}

std::vector<std::string> RuleCompiler::readWebsitesRules(
    const NullableString& /*profileID*/, int64_t action,
    const std::shared_ptr<ProfileDatabase>& profileDatabase) {
    if (!profileDatabase) return {};
    const std::vector<ProfileRule> rules = profileDatabase->getProfileRulesByAction(action);
    if (rules.empty() || !rules.front().domains) return {};
    return engine_detail::componentsSeparatedByString(*rules.front().domains, ",");
}

bool RuleCompiler::hostReloadsContentBlockers() {
    return std::floor(platform::host().appKitVersionNumber()) >= kMinimumAppKitVersion;
}

platform::Nanoseconds RuleCompiler::settleDelay() {
    const platform::Host& host = platform::host();
    if (host.isOperatingSystemAtLeastVersion({11, 0, 0})) return kSettleDelayBigSur;
    if (host.isOperatingSystemAtLeastVersion({10, 13, 4})) return kSettleDelayHighSierra;
    return kSettleDelayOlder;
}

void RuleCompiler::reloadBlockerRules(const NullableString& profileID,
                                      std::shared_ptr<ProfileDatabase> profileDatabase,
                                      CompletionHandler completionHandler) {
    reloadBlockerRules(profileID, std::move(profileDatabase), std::move(completionHandler),
                       nullptr);
}

void RuleCompiler::reloadBlockerRules(const NullableString& profileID,
                                      std::shared_ptr<ProfileDatabase> profileDatabase,
                                      CompletionHandler completionHandler, CompileReport* report) {
    std::shared_ptr<platform::UserDefaults> defaults =
        platform::defaults().suiteNamed(std::string(kApplicationGroup));

    if (!hostReloadsContentBlockers()) {
        // Such hosts cannot reload a content blocker. The caller is told at
        // once; from another thread the answer still goes to the main queue.
        if (completionHandler) {
            platform::Queue& main = platform::dispatch().mainQueue();
            if (main.isCurrent()) {
                completionHandler(std::nullopt);
            } else {
                main.async([completionHandler] { completionHandler(std::nullopt); });
            }
        }
        return;
    }

    if (profileID) {
        if (!profileDatabase)
            profileDatabase = ProfileDatabase::initWithBlockerProfileID(profileID);
        CompileReport ownReport;
        CompileReport* used = report ? report : &ownReport;
        writeProfileRules(profileID, profileDatabase, used);
        if (used->failure != CompileReport::Failure::None) {
            // Reloading now would load the old list under a request that
            // claims the new one; the caller learns that nothing changed.
            Error error{std::string(kCompilerErrorDomain), static_cast<int64_t>(used->failure),
                        "The rule list could not be compiled: not all rules could be read."};
            if (completionHandler) {
                platform::dispatch().mainQueue().async(
                    [completionHandler, error] { completionHandler(error); });
            }
            return;
        }
        defaults->setObject(*profileID, std::string(kActiveProfileIDKey));
    }

    // The content-blocker extension reads "blockerReloadType" when the
    // browser loads it, to tell the first load of a request from the second;
    // each value must be synchronised before the load it describes.
    defaults->setInteger(1, std::string(kBlockerReloadTypeKey));
    defaults->synchronize();

    auto finish = [completionHandler](std::optional<Error> error) {
        if (!completionHandler) return;
        platform::dispatch().mainQueue().async(
            [completionHandler, error = std::move(error)] { completionHandler(error); });
    };

    platform::contentBlocker().reloadContentBlockerWithIdentifier(
        std::string(kContentBlockerIdentifier), [defaults, finish](std::optional<Error> error) {
            if (error) {
                finish(std::move(error));
                return;
            }
            const platform::Nanoseconds delay = settleDelay();
            defaults->setInteger(2, std::string(kBlockerReloadTypeKey));
            defaults->synchronize();
            platform::dispatch()
                .globalQueue(platform::QueuePriority::High)
                .asyncAfter(delay, [finish] {
                    platform::contentBlocker().reloadContentBlockerWithIdentifier(
                        std::string(kContentBlockerIdentifier), finish);
                });
        });
}

int64_t RuleCompiler::setCurrentSafariServices() {
    // The generations of the browser's content-blocker service: 4 for the
    // second one, 3 for the first, 1 for none. A reload service is the first
    // generation's only feature, so that is what a host with one offers.
    return platform::installed().contentBlocker ? 3 : 1;
}

}  // namespace stonewall
