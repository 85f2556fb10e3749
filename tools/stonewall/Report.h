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

#include "Text.h"
#include "platform/Error.h"

namespace stonewall::tool {

using Json = nlohmann::ordered_json;

// Rows of label and value; labels are padded to the widest one.
class Table {
  public:
    void add(std::string label, std::string value) {
        rows_.emplace_back(std::move(label), std::move(value));
    }
    [[nodiscard]] bool empty() const { return rows_.empty(); }
    void print(std::ostream& out) const;

  private:
    std::vector<std::pair<std::string, std::string>> rows_;
};

struct Report {
    Json json = Json::object();
    Table table;
    // Sentences printed after the table ("Blocking is already on; nothing changed.").
    std::vector<std::string> notes;

    // One fact in both forms: the JSON member `key` and the table row
    // `label` with `text`, the same value in words.
    void add(const std::string& key, Json value, std::string label, std::string text) {
        json[key] = std::move(value);
        table.add(std::move(label), std::move(text));
    }
    // A text that reads the same in both.
    void add(const std::string& key, std::string label, const std::string& text) {
        add(key, Json(text), std::move(label), text);
    }

    [[nodiscard]] bool empty() const { return json.empty() && table.empty() && notes.empty(); }
};

enum class ReportFormat { Table, JSON };

// Prints the report as JSON (one line) or as the table and its notes.
void printReport(const Report& report, ReportFormat format, std::ostream& out);

// Dumps a JSON value compactly; bytes that are not UTF-8 (a path, a rule
// read from a file) become U+FFFD instead of throwing.
[[nodiscard]] std::string compactJSON(const nlohmann::json& value);
[[nodiscard]] std::string compactJSON(const Json& value);

Json errorJSON(const Error& error);

// The text with control characters escaped (\n, \t, \r, \xNN), for
// table output: a value from a file or another program must not drive the
// terminal or fake a line of ours.
[[nodiscard]] std::string withoutControls(std::string_view text);

// "12.3 ms", "1.24 s".
std::string formatDuration(double milliseconds);
// "yes" / "no", in the user's language.
std::string yesNo(bool value);

}  // namespace stonewall::tool
