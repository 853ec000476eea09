#pragma once

// Store text inside the HTML report, where it must never become markup.

#include <map>
#include <string>

#include "Output.h"

namespace datastore {

// Text from a store inside HTML: every character that could open markup or end an
// attribute is written as an entity; invalid UTF-8 becomes U+FFFD.
std::string html(std::string const& text);

// JSON inside a <script> element: no "<" may appear, or a "</script>" in a store's text
// would end the element. \u003c means the same to JSON.parse.
std::string scriptJson(Json const& value);

// `text` with each "{{name}}" replaced by values[name], in one pass: a value is never searched
// for names in turn. A name without a value stays as it is.
std::string fillTemplate(std::string const& text, std::map<std::string, std::string> const& values);

// The report's page (report.html beside this file, embedded at build time), to fill with
// fillTemplate(): host, store, period, zone, made, version, body, data, chartjs.
std::string const& reportTemplate();

}  // namespace datastore
