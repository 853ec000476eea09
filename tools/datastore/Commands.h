#pragma once

// Each store's subcommands register themselves on the application.

#include "Context.h"

namespace datastore {

void addInfoCommand(CLI::App& app, Options& options);
void addDemoCommand(CLI::App& app, Options& options);
void addStateCommands(CLI::App& app, Options& options);
void addGeneralCommands(CLI::App& app, Options& options);
void addEventCommands(CLI::App& app, Options& options);
void addRepairCommands(CLI::App& app, Options& options);

}  // namespace datastore
