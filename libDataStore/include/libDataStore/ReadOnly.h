#pragma once

#include <libDataStore/Export.h>

#include <chrono>

namespace zrn {

// Asks a store's constructor to open an existing file for reading only:
//
//     zrn::EventDataStore store(path, zrn::ReadOnly{});
//
// Such a store never creates, migrates or writes the file (its bytes and mtime stay as they
// are, and read-only files and folders are fine), refuses a missing file or one without the
// store's tables with DatabaseError, takes no process-wide named mutex, and runs each reading
// operation in one read transaction, so it sees one consistent state of the file. Writing
// operations fail and write nothing.
struct ZRN_DATASTORE_API ReadOnly {
    // How long an operation waits for a program that is writing the file; past it the
    // operation fails with DatabaseError saying the store is locked by another program.
    std::chrono::milliseconds wait{std::chrono::seconds(5)};
    // Opens the file as immutable: no lock is taken and no journal is looked at. Only for
    // media nobody writes, such as evidence copies; a file that changes underneath reads wrong.
    bool immutable = false;
};

}  // namespace zrn
