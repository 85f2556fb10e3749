#include "Report.h"

#include <algorithm>
#include <cstdio>
#include <ostream>

namespace stonewall::tool {

// Values come from files, databases and other programs' notifications; a
// control character in one must not move the terminal's cursor, clear the
// screen or start a line that looks like ours. Escaped as \n, \t, \xNN.
std::string withoutControls(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte != 0x7f) {
            out.push_back(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c == '\r') {
            out += "\\r";
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
            out += escaped;
        }
    }
    return out;
}

namespace {

// Columns a label takes: one per character (translated labels hold
// "ü", two bytes in UTF-8).
size_t columns(std::string_view text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
    }));
}

}  // namespace

void Table::print(std::ostream& out) const {
    size_t width = 0;
    for (const auto& [label, value] : rows_) width = std::max(width, columns(label));
    for (const auto& [label, value] : rows_) {
        if (value.empty()) {
            out << withoutControls(label) << '\n';
            continue;
        }
        out << withoutControls(label) << std::string(width - columns(label) + 2, ' ')
            << withoutControls(value) << '\n';
    }
}

void printReport(const Report& report, ReportFormat format, std::ostream& out) {
    if (format == ReportFormat::JSON) {
        if (!report.json.empty()) out << compactJSON(report.json) << '\n';
    } else {
        report.table.print(out);
        for (const auto& note : report.notes) out << withoutControls(note) << '\n';
    }
    out.flush();
}

std::string compactJSON(const nlohmann::json& value) {
    return value.dump(-1, ' ', /*ensure_ascii=*/false, nlohmann::json::error_handler_t::replace);
}

std::string compactJSON(const Json& value) {
    return value.dump(-1, ' ', /*ensure_ascii=*/false, Json::error_handler_t::replace);
}

Json errorJSON(const Error& error) {
    Json object = Json::object();
    object["domain"] = error.domain;
    object["code"] = error.code;
    object["message"] = error.message;
    return object;
}

std::string formatDuration(double milliseconds) {
    char buffer[32];
    if (milliseconds >= 1000) {
        std::snprintf(buffer, sizeof buffer, "%.2f s", milliseconds / 1000);
    } else {
        std::snprintf(buffer, sizeof buffer, "%.1f ms", milliseconds);
    }
    return buffer;
}

std::string yesNo(bool value) { return value ? tr("yes") : tr("no"); }

}  // namespace stonewall::tool
