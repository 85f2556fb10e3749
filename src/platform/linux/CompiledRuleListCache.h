#pragma once

// Compiled rule lists kept by the content of their source. WebKit takes
// seconds to compile a large list, and most reloads ask for a list that was
// compiled before: the second phase of every reload, blocking off and on
// again, switching back to a profile whose list did not change. Those cost a
// hash of the source and a look-up here instead, without loading WebKit.
//
// Layout inside a WebKit rule-list store folder S (WebKit keeps the list of
// identifier X in the file "ContentRuleList-X"):
//
//   S/ContentRuleList-<identifier>   the CURRENT list of the content blocker:
//                                    what a browser loads by the identifier.
//                                    Always one of the entries below (a hard
//                                    link, or a copy where links fail).
//   S/.cache/ContentRuleList-<identifier>.<key>
//                                    compiled lists by content; <key> is the
//                                    SHA-256 of the source (32 hex digits).
//                                    Never for browsers to load directly.
//   S/.cache/index.json              the WebKit library that compiled them
//                                    (path, inode, size, time) and the entries
//                                    from last used to least recently used.
//   S/.cache/index.lock              held (flock) while the index changes.
//
// Entries made by another WebKit library (an upgrade changes the file behind
// the recorded path) are all dropped, as are entries past the limits, least
// recently used first; the current one is always kept. Several processes
// may share a store: the index and the current list change only under the
// lock, compiles run outside it.
//
// Not thread-safe: one object per thread (the reload service has one
// thread), any number of processes.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Error.h"

namespace stonewall::platform::gnulinux {

class CompiledRuleListCache {
  public:
    // Compiles a source into a store folder under an identifier (WebKit).
    using Compiler = std::function<std::optional<Error>(
        const std::string& storePath, const std::string& identifier, std::string_view source)>;
    // The file of the WebKit library that the compiler runs with; asked
    // only after a compile, when it is loaded anyway.
    using LibraryPath = std::function<std::string()>;

    struct Limits {
        size_t entries = 6;
        uintmax_t bytes = uintmax_t{256} << 20;
    };

    CompiledRuleListCache(std::string storePath, Compiler compiler, LibraryPath libraryPath,
                          Limits limits);
    CompiledRuleListCache(std::string storePath, Compiler compiler, LibraryPath libraryPath)
        : CompiledRuleListCache(std::move(storePath), std::move(compiler), std::move(libraryPath),
                                Limits{}) {}

    struct Outcome {
        std::optional<Error> error;  // the compiler's; the current list is then unchanged
        bool compiled = false;       // false: served from the cache
        std::string key = {};        // contentKey(source), on success
    };

    // Makes the compiled form of `source` the current list of `identifier`,
    // compiling it only when no usable entry holds it. `identifier` must be
    // made of letters, digits, ".", "-" and "_" (it becomes a file name).
    Outcome install(const std::string& identifier, std::string_view source);

    // The file of the current list of `identifier`, and of the entry for a
    // source (whether or not it exists).
    std::string currentListPath(const std::string& identifier) const;
    std::string entryPath(const std::string& identifier, std::string_view source) const;
    std::string keyedEntryPath(const std::string& identifier, const std::string& key) const;
    // Whether the current list of `identifier` is the entry of the source
    // with content key `key`. Needs no compiler.
    bool isCurrent(const std::string& identifier, const std::string& key) const;

    static std::string contentKey(std::string_view source);

  private:
    std::string storePath_;
    std::string cachePath_;
    Compiler compiler_;
    LibraryPath libraryPath_;
    Limits limits_;
};

}  // namespace stonewall::platform::gnulinux
