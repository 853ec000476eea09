#pragma once

// The tables of a fleet database that incremental exports of many machines are loaded into.

#include <libDataStore/StoreReader.h>

#include <string>
#include <utility>
#include <vector>

namespace datastore {

// Each store's name ("event") with the tables the library creates in a new file of it.
using StoreTables = std::vector<std::pair<std::string, std::vector<zrn::StoreTable>>>;
StoreTables libraryTables();

// The ClickHouse type of a column of SQLite's declared type (by SQLite's affinity rules).
std::string clickHouseType(zrn::StoreColumn const& column, bool isKey);

// CREATE DATABASE and one CREATE TABLE per table, ';'-terminated statements for
// clickhouse-client --multiquery.
std::string clickHouseSchema(StoreTables const& stores);

}  // namespace datastore
