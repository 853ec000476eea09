#include "StoreSupport.h"

#include <libCommon/Exception.h>
#include <libCommon/Logger.h>
#include <libDataStore/SQLiteDataStore.h>

#include "ModuleState.h"
#include "SqlText.h"

namespace zrn {

Logger* createLogger(char const* name) {
    Logger* created = nullptr;
    LogFactory::createLogger(name, created);
    return created;
}

bool defaultPath(String const& (*getter)(), Logger* logger, char const* number,
                 String& path) noexcept {
    try {
        path = module::settingsCopy(getter);
        return true;
    } catch (Exception const& e) {
        try {
            logAt(logger, LoggerPriority::ERROR, [&] {
                return LoggerStream() + number +
                       "Failure attempting to retrieve the appstate datastore path: " +
                       e.getMessage();
            });
        } catch (...) {
        }
    } catch (...) {
    }
    return false;
}

Logger* defectLogger() {
    static Logger* const instance = createLogger("DEFECT.GENERIC");
    return instance;
}

bool updateIfExists(SQLiteDataStore& table, char const* idColumn, long long id,
                    HashTable<String, String> const& row, char const* missingMessage) {
    String const idText = sql::number(id);
    if (!table.contains(idColumn, idText)) {
        if (missingMessage) {
            logAt(defectLogger(), LoggerPriority::ERROR,
                  [&] { return LoggerStream() + missingMessage + id; });
        }
        return false;
    }
    table.update(row, idColumn, idText);
    return true;
}

String versionText(SQLiteDataStore const& versionTable) {
    String text;
    if (versionTable.count(String(), String()) != 0) {
        versionTable.cellDataAtIndex(0, text, "version", String(), String());
    }
    return text;
}

bool checkTables(std::initializer_list<std::pair<char const*, SQLiteDataStore const*>> tables,
                 String& error) {
    for (auto const& table : tables) {
        if (!table.second) {
            error = table.first + String("Database is not open");
            return false;
        }
        if (!table.second->checkValidity(error)) {
            error = table.first + error;
            return false;
        }
    }
    return true;
}

}  // namespace zrn
