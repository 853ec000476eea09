// datastore logs: the general store's generic logs with their key/values (genstore.db).

#include <libDataStore/GeneralDataStore.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <set>
#include <vector>

#include "Commands.h"
#include "Output.h"
#include "Records.h"

namespace datastore {

namespace {

struct GeneralArgs {
    std::string type;
    std::string guid;
    std::string category;
    std::string subCategory;
    std::vector<std::string> keyValues;  // KEY=VALUE
};

long long unixSeconds(zrn::TimeStamp const& time) {
    return time.isInitialized() ? time.getUnixTimeStamp() : 0;
}

zrn::GenericLogFilter filterOf(GeneralArgs const& args, TimeRange const& range) {
    zrn::GenericLogFilter filter{zrn::String(args.type), zrn::String(args.guid)};
    filter.setCategoryFilter(zrn::String(args.category), zrn::String(args.subCategory));
    filter.setDateFilter(range.since > 0 ? zrn::TimeStamp(range.since) : zrn::TimeStamp(),
                         range.until > 0 ? zrn::TimeStamp(range.until) : zrn::TimeStamp());
    std::set<std::string> keys;
    for (std::string const& pair : args.keyValues) {
        std::size_t const equals = pair.find('=');
        if (equals == std::string::npos || equals == 0) {
            throw ToolError(USAGE, "--kv: expected KEY=VALUE, got '" + pair + "'");
        }
        std::string const key = pair.substr(0, equals);
        // The store keeps the first requirement on a key and drops the others silently.
        if (!keys.insert(key).second)
            throw ToolError(USAGE, "--kv: the key '" + key + "' is given twice");
        filter.addKeyValueRequirement(zrn::String(key), zrn::String(pair.substr(equals + 1)));
    }
    return filter;
}

void logs(Options const& options, GeneralArgs const& args) {
    TimeRange const range = timeRange(options);
    zrn::GenericLogFilter const filter = filterOf(args, range);
    std::string const path = existingStorePath(options, Store::General);
    auto const store = openOrFail(path, [&] {
        return std::make_unique<zrn::GeneralDataStore>(zrn::String(path), readOnly(options));
    });
    zrn::String error;
    if (!store->isInitialized() || !store->checkValidity(error)) {
        storeFailure(path, "cannot open" + (error.empty() ? "" : ": " + error.str()));
    }

    // The store returns the logs in no particular order and would apply a limit before any
    // order: all are read, then sorted newest first and cut here.
    zrn::GenericLogList const list = store->getLogs(filter);
    std::string const failure = QuietLog::takeFirstError();
    if (!failure.empty()) storeFailure(path, "cannot read the logs: " + failure);

    std::vector<zrn::GenericLog const*> sorted;
    for (unsigned i = 0; i < list.size(); ++i) sorted.push_back(&list.get(i));
    std::stable_sort(sorted.begin(), sorted.end(), [](auto const* a, auto const* b) {
        return unixSeconds(a->creationUTCTimeStamp()) > unixSeconds(b->creationUTCTimeStamp());
    });

    RecordPrinter printer(genericLogFields(), options.json);
    for (zrn::GenericLog const* log : sorted) {
        if (options.limit > 0 && static_cast<long>(printer.count()) >= options.limit) break;
        printer.add(genericLogRecord(options.json, *log));
    }
    printer.print(std::cout);
}

}  // namespace

void addGeneralCommands(CLI::App& app, Options& options) {
    static GeneralArgs args;
    CLI::App* c = addInspection(
        app, options, "logs", "Generic logs with their key/values (genstore.db), newest first",
        "datastore logs --category Storage --kv Status=Warning --since 2026-11-23");
    c->add_option("--type", args.type, "Only logs of this type UUID");
    c->add_option("--guid", args.guid, "Only the log of this GUID");
    c->add_option("--category", args.category, "Only logs of this category");
    c->add_option("--subcategory", args.subCategory, "Only logs of this sub-category");
    c->add_option("--kv", args.keyValues,
                  "Only logs holding KEY with exactly VALUE (KEY=VALUE); repeatable");
    c->callback([&options] { logs(options, args); });
}

}  // namespace datastore
