#include <libDataStore/EventDataStore.h>

#include <libCommon/Logger.h>
#include <libCommon/SQLite3Database.h>
#include <libDataStore/DataStoreSettings.h>
#include <libDataStore/SQLiteDataStore.h>

#include "EventStoreText.h"
#include "ModuleState.h"
#include "StoreSupport.h"

namespace zrn {

Logger* ReadOnlyEventDataStore::logger() {
    // The same logger as EventDataStore: the view is part of that store.
    static Logger* const instance = createLogger("libDataStore.EventDataStore");
    return instance;
}

ReadOnlyEventDataStore::ReadOnlyEventDataStore()
    : ReadOnlyEventDataStore(module::settingsCopy(&DataStoreSettings::eventDataStoreFilePath)) {}

ReadOnlyEventDataStore::ReadOnlyEventDataStore(String const& path) : m_path(path) {
    logAt(logger(), LoggerPriority::TRACE, [&] {
        return LoggerStream() + "2783 " + "ReadOnlyEventDataStore(" + path +
               ") this: " + static_cast<void const*>(this);
    });
    AutoGlobalMutex lock(module::eventStoreMutex());
    // Encoding 1 (UTF-8), create mode 1 (open an existing file only) and access mode 0 (read
    // only): the file must exist, and nothing this view does can write to it.
    m_database = SharedResource<PointerStorage<SQLite3Database>>(new SQLite3Database(
        path, SQLiteDataStore::dbSyncMode(), SQLite3Database::CHARACTER_ENCODING(1),
        SQLite3Database::CREATE_MODE(1), SQLite3Database::ACCESS_MODE(0)));
}

ReadOnlyEventDataStore::ReadOnlyEventDataStore(ReadOnlyEventDataStore const& other) = default;
ReadOnlyEventDataStore::ReadOnlyEventDataStore(ReadOnlyEventDataStore&& other) noexcept = default;
ReadOnlyEventDataStore& ReadOnlyEventDataStore::operator=(ReadOnlyEventDataStore const& other) =
    default;
ReadOnlyEventDataStore& ReadOnlyEventDataStore::operator=(ReadOnlyEventDataStore&& other) noexcept =
    default;
ReadOnlyEventDataStore::~ReadOnlyEventDataStore() = default;

bool ReadOnlyEventDataStore::lookup(String const& guid, bool withKeyValues) const {
    // A moved-from view has no connection: treated as closed.
    if (!m_database || m_database->isClosed()) return false;
    AutoGlobalMutex lock(module::eventStoreMutex());
    return eventsql::findAlert(
               *m_database, guid,
               withKeyValues ? eventsql::KeyValues::Required : eventsql::KeyValues::Any,
               eventsql::Tracking::Any) != -1;
}

bool ReadOnlyEventDataStore::alertExistsWithKeyVals(String const& guid) const {
    return lookup(guid, true);
}

bool ReadOnlyEventDataStore::alertExists(String const& guid) const { return lookup(guid, false); }

}  // namespace zrn
