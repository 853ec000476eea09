#pragma once

// Each store's subcommands register themselves on the application.

#include <string>
#include <vector>

#include "Context.h"

namespace zrn {
class AppStateDataStore;
class String;
}  // namespace zrn

namespace datastore {

void addInfoCommand(CLI::App& app, Options& options);
void addDemoCommand(CLI::App& app, Options& options);
void addStateCommands(CLI::App& app, Options& options);
void addGeneralCommands(CLI::App& app, Options& options);
void addEventCommands(CLI::App& app, Options& options);
void addRepairCommands(CLI::App& app, Options& options);
void addCheckCommand(CLI::App& app, Options& options);
void addSummaryCommand(CLI::App& app, Options& options);
void addPruneCommand(CLI::App& app, Options& options);
void addExportCommand(CLI::App& app, Options& options);
void addCollectCommand(CLI::App& app, Options& options);
void addReportCommand(CLI::App& app, Options& options);
void addGrepCommand(CLI::App& app, Options& options);
void addTimelineCommand(CLI::App& app, Options& options);

// The store's verdict on itself, asked of a read-only opening so that nothing is completed,
// upgraded or written: empty when the store at `path` (an existing file of that store) calls
// itself valid, else why not. Also its schema version (-1: none kept or unreadable).
std::string storeValidity(std::string const& path, Store store, zrn::ReadOnly const& reader,
                          int& version);

// The damage the integrity check, the schema version and the expected tables find in the
// store file at `path`, read through a read-only connection; empty when there is none.
std::vector<std::string> storeDamage(std::string const& path, Store store,
                                     zrn::ReadOnly const& reader);

// Replaces the application-state item `key` (removal, then insertion: items are never updated
// in place) while holding the store's machine-wide mutex, so that another process replacing the
// same item cannot slip its insertion in between and make ours fail. False if either step failed.
bool replaceStateItem(zrn::AppStateDataStore& store, zrn::String const& key,
                      zrn::String const& data, zrn::String const& group);

}  // namespace datastore
