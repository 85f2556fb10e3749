#pragma once

// What one command tells its user: a short aligned table for people and one
// JSON object for scripts (--json), filled side by side so that both always
// say the same thing. Printed once, at the end of the command, also when the
// command fails (then with the error added), so a script reading stdout gets
// exactly one object per command.

#include <iosfwd>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Error.h"

namespace stonewall::tool {

using Json = nlohmann::ordered_json;

// Rows of label and value; labels are padded to the widest one.
class Table {
  public:
    void add(std::string label, std::string value) {
        rows_.emplace_back(std::move(label), std::move(value));
    }
    bool empty() const { return rows_.empty(); }
    void print(std::ostream& out) const;

  private:
    std::vector<std::pair<std::string, std::string>> rows_;
};

struct Report {
    Json json = Json::object();
    Table table;
    // Sentences printed after the table ("Blocking is already on; nothing changed.").
    std::vector<std::string> notes;

    bool empty() const { return json.empty() && table.empty() && notes.empty(); }
};

// Prints the report as JSON (one line) or as the table and its notes.
void printReport(const Report& report, bool json, std::ostream& out);

// Dumps a JSON value compactly; bytes that are not UTF-8 (a path, a rule
// read from a file) become U+FFFD instead of throwing.
std::string compactJSON(const nlohmann::json& value);
std::string compactJSON(const Json& value);

Json errorJSON(const Error& error);

// The text with control characters escaped (\n, \t, \r, \xNN), for
// table output: a value from a file or another program must not drive the
// terminal or fake a line of ours.
std::string withoutControls(std::string_view text);

// "12.3 ms", "1.24 s".
std::string formatDuration(double milliseconds);
// "yes" / "no".
inline std::string yesNo(bool value) { return value ? "yes" : "no"; }

}  // namespace stonewall::tool
