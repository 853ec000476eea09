#pragma once

// Golden files: texts the library must produce byte for byte (statements, messages, schemas),
// kept under tests/golden/ and compared whole, so a change of one character anywhere fails with
// a unified diff. Setting DATASTORE_UPDATE_GOLDEN=1 (scripts/update-golden.sh) rewrites the files
// instead, so that a deliberate change shows up in the golden file's own diff for review.

#include "SqlTrace.h"
#include "TestSupport.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace zrn {
namespace test {

// Compares `actual` with tests/golden/<name> (a relative path such as "event/statements.txt").
// On a mismatch the test fails with `diff -u golden actual`; a missing golden file fails too.
// With DATASTORE_UPDATE_GOLDEN set, writes `actual` to the golden file and passes.
void expectGolden(std::string const& name, std::string const& actual);

// The text of tests/golden/<name> ("" when there is none), for tests whose golden file also
// lists the cases they run.
std::string goldenText(std::string const& name);

// The schema of a database file as text, read with the raw sqlite3 API: every sqlite_master
// row in creation order, then for each table PRAGMA table_info, PRAGMA index_list with each
// index's PRAGMA index_info, and the rows of the tables named in `contentTables` (the version
// tables, say) in rowid order. Cells are written as they are; NULL as <NULL>.
std::string schemaText(std::string const& path, std::vector<std::string> const& contentTables);

// Records, while it lives, every statement SQLite runs (on every connection, through SqlTrace)
// and every message logged at any priority (through LogCapture), grouped under headings that
// the workload writes with step(). Texts pass through the replacements before they are kept,
// so that what differs from run to run (a temporary folder, the current time) is named once.
class Catalogue {
public:
    Catalogue();
    Catalogue(Catalogue const&) = delete;
    Catalogue& operator=(Catalogue const&) = delete;

    // Starts a new heading: "## <title>" in both texts; what was recorded until now goes under
    // the previous heading.
    void step(std::string const& title);

    // Every occurrence of `from` becomes `to` in what is recorded from now on (applied in the
    // order added). Add longer texts first when one contains another.
    void replace(std::string from, std::string to);
    // A general rewrite, applied after the plain replacements.
    void rewrite(std::function<std::string(std::string)> rewrite);
    // From now on, the times that say when the workload ran become placeholders: Unix seconds
    // (ten digits standing alone) become "<now>" and date-time texts such as
    // "2026-11-25T10:46:36+01:00" become "<now-text>", but only those that fall between this
    // call and the moment they are collected (a second of slack either side), so fixed times
    // of the workload stay as they are.
    void replaceCurrentTimes();

    // A line of the workload's own ("> <text>") under the current heading of the messages:
    // an error text or an exception message that the library returns instead of logging.
    void note(std::string const& text);
    // Runs `action` and notes "throws <type>: <message>" for a zrn::Exception, or "returns"
    // when nothing is thrown. Anything else passes on.
    void noteThrow(std::function<void()> const& action);

    // "> <what> = <value>": a number, count or truth value the workload was given back.
    void note(std::string const& what, long long value);
    // Runs `work`, which must throw zrn::Exception, and notes "<what> threw DatabaseError:
    // <message>" (or "Exception: "); a `work` that does not throw fails the test.
    void noteThrow(std::string const& what, std::function<void()> const& work);
    // Runs `work` (preparing an old file, dumping a schema) without recording what SQLite runs
    // or what is logged meanwhile: statements of the test itself are not the library's.
    void unrecorded(std::function<void()> const& work);
    // Forgets everything recorded so far (the test's own preparation of files).
    void discard();

    // "<statement>\n" per statement, in the order SQLite ran them, under the headings.
    std::string statements();
    // "<priority> <logger>: <message>\n" per message, in order, under the headings.
    std::string messages();

private:
    void collect();
    std::string clean(std::string text) const;

    SqlTrace m_trace;
    LogCapture m_log;
    std::vector<std::pair<std::string, std::string>> m_replacements;
    std::vector<std::function<std::string(std::string)>> m_rewrites;
    std::string m_statements;
    std::string m_messages;
};

}  // namespace test
}  // namespace zrn
