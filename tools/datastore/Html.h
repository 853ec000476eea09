#pragma once

// Store text inside the HTML report, where it must never become markup.

#include <string>

#include "Output.h"

namespace datastore {

// Text from a store inside HTML: every character that could open markup or end an
// attribute is written as an entity; invalid UTF-8 becomes U+FFFD.
std::string html(std::string const& text);

// JSON inside a <script> element: no "<" may appear, or a "</script>" in a store's text
// would end the element. \u003c means the same to JSON.parse.
std::string scriptJson(Json const& value);

}  // namespace datastore
