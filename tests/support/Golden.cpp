#include "Golden.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cxxabi.h>
#include <libCommon/DateTime.h>
#include <libCommon/Exception.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <typeinfo>

#ifndef ZRN_GOLDEN_DIR
#error "ZRN_GOLDEN_DIR names the folder of the golden files"
#endif

namespace zrn {
namespace test {

namespace {

bool updating() {
    char const* value = std::getenv("DATASTORE_UPDATE_GOLDEN");
    return value && *value && std::string(value) != "0";
}

std::string unifiedDiff(std::string const& goldenPath, std::string const& actual) {
    std::string const actualPath =
        ::testing::TempDir() + "zrn-golden-actual-" + std::to_string(::getpid()) + ".txt";
    writeFile(actualPath, actual);
    std::string const command = "diff -u --label golden/" +
                                std::filesystem::path(goldenPath).filename().string() +
                                " --label actual '" + goldenPath + "' '" + actualPath + "' 2>&1";
    std::string output;
    if (FILE* pipe = ::popen(command.c_str(), "r")) {
        char buffer[4096];
        size_t n;
        while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
        ::pclose(pipe);
    }
    std::remove(actualPath.c_str());
    return output;
}

// One line per row of `sql`, its cells joined by " | ".
std::string rowsText(RawDb& db, std::string const& sql, std::string const& indent) {
    std::string out;
    for (auto const& row : db.query(sql)) {
        out += indent;
        for (std::size_t c = 0; c < row.size(); ++c) out += (c ? " | " : "") + row[c];
        out += "\n";
    }
    return out;
}

// A name inside double quotes, for PRAGMA arguments and queries of the dump only.
std::string quoted(std::string const& name) {
    std::string out = "\"";
    for (char c : name) {
        if (c == '"') out += '"';
        out += c;
    }
    return out + "\"";
}

// Every match of `pattern` for which `isNow` holds becomes `placeholder`.
std::string replaceMatches(std::string const& text, std::regex const& pattern,
                           std::function<bool(std::string const&)> const& isNow,
                           std::string const& placeholder) {
    std::string out;
    auto last = text.cbegin();
    for (std::sregex_iterator it(text.begin(), text.end(), pattern), end; it != end; ++it) {
        out.append(last, text.cbegin() + it->position(1));
        out += isNow(it->str(1)) ? placeholder : it->str(1);
        last = text.cbegin() + it->position(1) + it->length(1);
    }
    out.append(last, text.cend());
    return out;
}

std::string demangled(char const* name) {
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> text(
        abi::__cxa_demangle(name, nullptr, nullptr, &status), std::free);
    return status == 0 && text ? text.get() : name;
}

}  // namespace

std::string goldenText(std::string const& name) {
    std::string const path = std::string(ZRN_GOLDEN_DIR) + "/" + name;
    return std::filesystem::exists(path) ? readFile(path) : std::string();
}

void expectGolden(std::string const& name, std::string const& actual) {
    std::string const path = std::string(ZRN_GOLDEN_DIR) + "/" + name;
    if (updating()) {
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        writeFile(path, actual);
        return;
    }
    if (!std::filesystem::exists(path)) {
        ADD_FAILURE() << "no golden file " << path
                      << " (run scripts/update-golden.sh to write it, then review it)";
        return;
    }
    if (readFile(path) != actual) {
        ADD_FAILURE() << "differs from the golden file " << path << ":\n"
                      << unifiedDiff(path, actual)
                      << "(a deliberate change: scripts/update-golden.sh, then review the diff)";
    }
}

std::string schemaText(std::string const& path, std::vector<std::string> const& contentTables) {
    RawDb db(path, true);
    std::ostringstream out;
    out << "# sqlite_master (type | name | tbl_name | sql)\n"
        << rowsText(db, "SELECT type, name, tbl_name, sql FROM sqlite_master ORDER BY rowid", "  ");
    for (auto const& name :
         db.query("SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY rowid")) {
        std::string const& table = name[0];
        out << "# table " << table << "\n"
            << "  table_info (cid | name | type | notnull | dflt_value | pk)\n"
            << rowsText(db, "PRAGMA table_info(" + quoted(table) + ")", "    ")
            << "  index_list (seq | name | unique | origin | partial)\n"
            << rowsText(db, "PRAGMA index_list(" + quoted(table) + ")", "    ");
        for (auto const& index : db.query("PRAGMA index_list(" + quoted(table) + ")")) {
            out << "  index_info " << index[1] << " (seqno | cid | name)\n"
                << rowsText(db, "PRAGMA index_info(" + quoted(index[1]) + ")", "    ");
        }
    }
    for (auto const& table : contentTables) {
        out << "# rows of " << table << "\n"
            << rowsText(db, "SELECT * FROM " + quoted(table) + " ORDER BY rowid", "  ");
    }
    return out.str();
}

// ---- Catalogue ------------------------------------------------------------------------------

Catalogue::Catalogue() : m_log(1) {}

void Catalogue::replace(std::string from, std::string to) {
    collect();
    m_replacements.emplace_back(std::move(from), std::move(to));
}

void Catalogue::rewrite(std::function<std::string(std::string)> rewrite) {
    collect();
    m_rewrites.push_back(std::move(rewrite));
}

void Catalogue::replaceCurrentTimes() {
    long long const start = static_cast<long long>(std::time(nullptr)) - 1;
    auto const isNow = [start](long long seconds) {
        return seconds >= start && seconds <= static_cast<long long>(std::time(nullptr)) + 1;
    };
    rewrite([isNow](std::string text) {
        static std::regex const seconds("(?:^|[^0-9])([0-9]{10})(?![0-9])");
        static std::regex const dateTime(
            "([0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}[+-][0-9]{2}:[0-9]{2})");
        text = replaceMatches(
            text, dateTime,
            [&](std::string const& t) { return isNow(DateTime(String(t)).unixTimeStamp()); },
            "<now-text>");
        return replaceMatches(
            text, seconds, [&](std::string const& t) { return isNow(std::stoll(t)); }, "<now>");
    });
}

void Catalogue::note(std::string const& text) {
    collect();
    m_messages += "> " + clean(text) + "\n";
}

void Catalogue::noteThrow(std::function<void()> const& action) {
    try {
        action();
    } catch (Exception const& e) {
        note("throws " + demangled(typeid(e).name()) + ": " + e.getMessage().str());
        return;
    }
    note("returns");
}

std::string Catalogue::clean(std::string text) const {
    for (auto const& [from, to] : m_replacements) {
        if (from.empty()) continue;
        for (size_t at = text.find(from); at != std::string::npos;
             at = text.find(from, at + to.size())) {
            text.replace(at, from.size(), to);
        }
    }
    for (auto const& rewrite : m_rewrites) text = rewrite(std::move(text));
    return text;
}

void Catalogue::collect() {
    for (auto const& statement : m_trace.statements()) m_statements += clean(statement) + "\n";
    m_trace.clear();
    for (auto const& entry : m_log.entries()) {
        m_messages += std::to_string(entry.priority) + " " + entry.logger + ": " +
                      clean(entry.message) + "\n";
    }
    m_log.clear();
}

void Catalogue::step(std::string const& title) {
    collect();
    m_statements += "## " + title + "\n";
    m_messages += "## " + title + "\n";
}

void Catalogue::note(std::string const& what, long long value) {
    note(what + " = " + std::to_string(value));
}

void Catalogue::noteThrow(std::string const& what, std::function<void()> const& work) {
    try {
        work();
        ADD_FAILURE() << what << " did not throw";
    } catch (DatabaseError const& e) {
        note(what + " threw DatabaseError: " + e.getMessage().str());
    } catch (Exception const& e) {
        note(what + " threw Exception: " + e.getMessage().str());
    }
}

void Catalogue::discard() {
    collect();
    m_statements.clear();
    m_messages.clear();
}

void Catalogue::unrecorded(std::function<void()> const& work) {
    collect();
    work();
    m_trace.clear();
    m_log.clear();
}

std::string Catalogue::statements() {
    collect();
    return m_statements;
}

std::string Catalogue::messages() {
    collect();
    return m_messages;
}

}  // namespace test
}  // namespace zrn
