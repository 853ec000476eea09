#include "SqlText.h"

#include "ModuleState.h"

namespace zrn {
namespace sql {

void appendIdentifier(std::string& out, String const& name) {
    out += module::backquote().str();
    out += name.str();
    out += module::backquote().str();
}

void appendValue(std::string& out, String const& text) {
    char const quote = module::quote().str()[0];
    out.reserve(out.size() + text.byteSize() + 2);
    out += quote;
    for (char c : text.str()) {
        if (c == quote) out += quote;
        out += c;
    }
    out += quote;
}

String identifier(String const& name) {
    std::string out;
    appendIdentifier(out, name);
    return String(std::move(out));
}

String value(String const& text) {
    std::string out;
    appendValue(out, text);
    return String(std::move(out));
}

void columnAndValueLists(HashTable<String, String> const& row, std::string& names,
                         std::string& values) {
    for (auto const& entry : row) {
        if (!names.empty()) {
            names += module::comma().str();
            values += module::comma().str();
        }
        appendIdentifier(names, entry.first);
        appendValue(values, entry.second);
    }
}

String number(long long n) { return String(std::to_string(n)); }

}  // namespace sql
}  // namespace zrn
