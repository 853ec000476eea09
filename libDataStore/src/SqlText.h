#pragma once

// Building SQL text: every statement of the library is text, with no bound parameters.

#include <libCommon/HashTable.h>
#include <libCommon/String.h>

#include <string>

namespace zrn {
namespace sql {

// `name`: an identifier between backquotes. The name is not escaped: a backquote inside it
// makes invalid SQL, which SQLite refuses.
String identifier(String const& name);
// 'value': a value between single quotes, every single quote inside doubled.
String value(String const& text);
// Appends identifier(name) / value(text) to `out` without temporaries.
void appendIdentifier(std::string& out, String const& name);
void appendValue(std::string& out, String const& text);

// The column list and the value list of an INSERT for `row`, each item quoted, joined by ","
// in the row's own iteration order: "`a`,`b`" and "'x','y'".
void columnAndValueLists(HashTable<String, String> const& row, std::string& names,
                         std::string& values);

// Decimal text of an integer, as every number is written into SQL.
String number(long long n);

}  // namespace sql
}  // namespace zrn
