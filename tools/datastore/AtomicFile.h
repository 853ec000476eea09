#pragma once

// Files that are whole or absent: what the tool writes for people to pick up (a report, a
// support bundle) is written beside its target under a temporary name and renamed when complete,
// so that a reader never sees half a file and a failure leaves the target as it was.

#include <functional>
#include <string>

namespace datastore {

// Calls `write` with the temporary name ("<file>.partial") to fill, then renames it to `file`.
// When `write` throws, the temporary file is removed and the exception passes on; a failed
// rename is ToolError(STORE) "<file>: cannot write: <reason>".
void writeAtomically(std::string const& file,
                     std::function<void(std::string const& partial)> const& write);

}  // namespace datastore
