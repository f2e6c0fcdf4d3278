// HelpFormatter.cpp: Utils::cmdHelpLong, which lays out a command's long help
// (name and summary, description, option table, examples) as the interpreter
// result. Everything is built in growing strings, so no text is too long.
#include "HelpFormatter.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr size_t kWidth = 76;     // wrap column of running text
constexpr size_t kIndent = 4;     // indent of every section body
constexpr size_t kMinOptCol = 12; // narrowest option column

const char* orEmpty(const char* s) { return s ? s : ""; }

// Returns `opt` without the question marks that mark it optional in the table
// ("?-test?" gives "-test"); a name with none is returned whole.
std::string stripQuestionMarks(const char* opt) {
    std::string s = orEmpty(opt);
    size_t b = 0, e = s.size();
    while (b < e && s[b] == '?') ++b;
    while (e > b && s[e - 1] == '?') --e;
    return s.substr(b, e - b);
}

// Appends `text` to `out` word-wrapped at kWidth columns, each line indented by
// kIndent. Line breaks in the text are kept as paragraph breaks.
void appendWrapped(std::string& out, const char* text) {
    const std::string pad(kIndent, ' ');
    const char* p = text;
    while (true) {
        const char* nl = std::strchr(p, '\n');
        std::string para = nl ? std::string(p, nl - p) : std::string(p);
        std::string line;
        size_t pos = 0;
        while (pos < para.size()) {
            while (pos < para.size() && para[pos] == ' ') ++pos;
            if (pos >= para.size()) break;
            size_t end = para.find(' ', pos);
            if (end == std::string::npos) end = para.size();
            std::string word = para.substr(pos, end - pos);
            pos = end;
            // A word longer than the line still goes out whole on a line of its own.
            if (!line.empty() && kIndent + line.size() + 1 + word.size() > kWidth) {
                out += pad + line + "\n";
                line.clear();
            }
            if (!line.empty()) line += ' ';
            line += word;
        }
        if (!line.empty() || para.empty()) out += pad + line + "\n";
        if (!nl) break;
        p = nl + 1;
    }
}

// Appends each newline-separated line of `text`, indented, skipping empty ones.
void appendLines(std::string& out, const char* text) {
    const char* p = text;
    while (*p) {
        const char* nl = std::strchr(p, '\n');
        size_t len = nl ? size_t(nl - p) : std::strlen(p);
        if (len > 0) out.append(kIndent, ' ').append(p, len).append("\n");
        if (!nl) break;
        p = nl + 1;
    }
}

// Collects the (option, description) rows of a null-terminated pair table.
std::vector<std::pair<std::string, std::string>> tableRows(const char** table) {
    std::vector<std::pair<std::string, std::string>> rows;
    if (!table) return rows;
    for (const char** t = table; *t; t += 2) {
        rows.emplace_back(stripQuestionMarks(t[0]), orEmpty(t[1]));
        if (!t[1]) break;  // a pair cut short: its description is the end marker
    }
    return rows;
}

}  // namespace

namespace Utils {

// Sets the interpreter result to the help of `name`. Style 1 is the long layout
// with NAME, USAGE, DESCRIPTION, OPTIONS, NOTES and EXAMPLES sections (absent
// parts are left out); any other style gives the NAME line and a one-line list
// of the option names. Returns TCL_OK, or TCL_ERROR when the Tcl stubs cannot
// be initialised.
int cmdHelpLong(Tcl_Interp* interp, const char* name, const char* usage,
                const char* summary, const char* description, const char* notes,
                const char* examples, const char** table, int style) {
#ifdef USE_TCL_STUBS
    // This library has its own stubs table; the first call fills it.
    if (tclStubsPtr == nullptr && Tcl_InitStubs(interp, "8.6", 0) == nullptr) return TCL_ERROR;
#endif
    std::string out;
    const std::string cmd = orEmpty(name);
    const auto rows = tableRows(table);

    out += "NAME\n";
    out.append(kIndent, ' ');
    out += cmd;
    if (summary && *summary) out += std::string(" - ") + summary;
    out += "\n";

    if (style != 1) {
        if (!rows.empty()) {
            out += "\nOPTIONS\n";
            std::string line;
            for (const auto& r : rows) line += (line.empty() ? "" : " ") + r.first;
            appendWrapped(out, line.c_str());
        }
        Tcl_SetObjResult(interp, Tcl_NewStringObj(out.c_str(), (int)out.size()));
        return TCL_OK;
    }

    // A section appears only when it has text; `append` lays its text out.
    auto section = [&out](const char* title, const char* text, void (*append)(std::string&, const char*)) {
        if (!text || !*text) return;
        out += std::string("\n") + title + "\n";
        append(out, text);
    };
    section("USAGE", usage, appendLines);
    section("DESCRIPTION", description, appendWrapped);
    if (!rows.empty()) {
        size_t col = kMinOptCol;
        for (const auto& r : rows) col = std::max(col, r.first.size() + 2);
        out += "\nOPTIONS\n";
        for (const auto& r : rows) {
            out.append(kIndent, ' ');
            out += r.first;
            out.append(col - r.first.size(), ' ');
            out += r.second;
            // No trailing blanks when a row has no description.
            while (!out.empty() && out.back() == ' ') out.pop_back();
            out += "\n";
        }
    }
    section("NOTES", notes, appendWrapped);
    section("EXAMPLES", examples, appendLines);
    Tcl_SetObjResult(interp, Tcl_NewStringObj(out.c_str(), (int)out.size()));
    return TCL_OK;
}

}  // namespace Utils
