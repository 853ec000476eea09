#include "AtomicFile.h"

#include <filesystem>
#include <system_error>

#include "Context.h"

namespace datastore {

void writeAtomically(std::string const& file,
                     std::function<void(std::string const& partial)> const& write) {
    std::string const partial = file + ".partial";
    try {
        write(partial);
    } catch (...) {
        std::error_code ignored;
        std::filesystem::remove(partial, ignored);
        throw;
    }
    std::error_code error;
    std::filesystem::rename(partial, file, error);
    if (error) {
        std::error_code ignored;
        std::filesystem::remove(partial, ignored);
        throw ToolError(STORE, file + ": cannot write: " + error.message());
    }
}

}  // namespace datastore
