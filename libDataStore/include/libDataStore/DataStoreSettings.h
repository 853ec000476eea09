#pragma once

#include <libCommon/String.h>
#include <libDataStore/Export.h>

namespace zrn {

// Where each store keeps its database file. Each store has a folder (by default
// "<application directory>/datastore", one copy per store) and a fixed file name; the
// file-path getters compose the two afresh on every call, so a folder set later takes effect
// at the next call, and a reference obtained earlier then shows the new path too.
// All members are static and thread-safe; setters take the folder as it is (no check, no
// normalisation, no creation of the folder).
class ZRN_DATASTORE_API DataStoreSettings {
public:
    DataStoreSettings& operator=(DataStoreSettings const&) { return *this; }
    DataStoreSettings& operator=(DataStoreSettings&&) noexcept { return *this; }

    static String const& eventDataStorePath();
    static void setEventDataStorePath(String const& folder);
    static String const& eventDataStoreFilePath();  // "event.db"

    static String const& softwareDiagEventDataStorePath();
    static void setSoftwareDiagEventDataStorePath(String const& folder);
    static String const& softwareDiagEventDataStoreFilePath();  // "softwarediagevent.db"

    static String const& scriptletDataStorePath();
    static void setScriptletDataStorePath(String const& folder);
    static String const& scriptletDataStoreFilePath();  // "scriptlet.db"

    static String const& profilerDataStorePath();
    static void setProfilerDataStorePath(String const& folder);
    static String const& profilerDataStoreFilePath();  // "profiler.db"

    static String const& appStateDataStorePath();
    static void setAppStateDataStorePath(String const& folder);
    static String const& appStateDataStoreFilePath();  // "appstate.db"

    static String const& generalDataStorePath();
    static void setGeneralDataStorePath(String const& folder);
    static String const& generalDataStoreFilePath();  // "genstore.db"
};

}  // namespace zrn
