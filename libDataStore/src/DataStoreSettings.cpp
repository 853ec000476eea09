#include <libDataStore/DataStoreSettings.h>

#include <libCommon/FileSystem.h>
#include <libCommon/System.h>

#include "ModuleState.h"

namespace zrn {

namespace {

class SectionLock {
public:
    SectionLock() { mutex::lock(module::settingsSection()); }
    ~SectionLock() { mutex::unlock(module::settingsSection()); }
    SectionLock(SectionLock const&) = delete;
    SectionLock& operator=(SectionLock const&) = delete;
};

// One store's folder and last composed path, created on first use (a thread-safe function
// static) with the default folder "<application directory>/datastore".
struct Location {
    char const* fileName;
    String folder;
    String filePath;

    explicit Location(char const* name)
        : fileName(name),
          folder(System::getApplicationDirectory() + FileSystem::slash() + "datastore") {}

    String const& composePath() {
        filePath = FileSystem::getAbsolutePath(folder, fileName, true);
        return filePath;
    }
};

Location& eventLocation() {
    static Location location("event.db");
    return location;
}
Location& softwareDiagLocation() {
    static Location location("softwarediagevent.db");
    return location;
}
Location& scriptletLocation() {
    static Location location("scriptlet.db");
    return location;
}
Location& profilerLocation() {
    static Location location("profiler.db");
    return location;
}
Location& appStateLocation() {
    static Location location("appstate.db");
    return location;
}
Location& generalLocation() {
    static Location location("genstore.db");
    return location;
}

String const& folderOf(Location& (*location)()) {
    SectionLock lock;
    return location().folder;
}

void setFolderOf(Location& (*location)(), String const& folder) {
    SectionLock lock;
    location().folder = folder;
}

String const& filePathOf(Location& (*location)()) {
    SectionLock lock;
    return location().composePath();
}

}  // namespace

// The section is recursive, so the getter takes it again inside.
String module::settingsCopy(String const& (*getter)()) {
    SectionLock lock;
    return getter();
}

String const& DataStoreSettings::eventDataStorePath() { return folderOf(eventLocation); }
void DataStoreSettings::setEventDataStorePath(String const& folder) {
    setFolderOf(eventLocation, folder);
}
String const& DataStoreSettings::eventDataStoreFilePath() { return filePathOf(eventLocation); }

String const& DataStoreSettings::softwareDiagEventDataStorePath() {
    return folderOf(softwareDiagLocation);
}
void DataStoreSettings::setSoftwareDiagEventDataStorePath(String const& folder) {
    setFolderOf(softwareDiagLocation, folder);
}
String const& DataStoreSettings::softwareDiagEventDataStoreFilePath() {
    return filePathOf(softwareDiagLocation);
}

String const& DataStoreSettings::scriptletDataStorePath() { return folderOf(scriptletLocation); }
void DataStoreSettings::setScriptletDataStorePath(String const& folder) {
    setFolderOf(scriptletLocation, folder);
}
String const& DataStoreSettings::scriptletDataStoreFilePath() {
    return filePathOf(scriptletLocation);
}

String const& DataStoreSettings::profilerDataStorePath() { return folderOf(profilerLocation); }
void DataStoreSettings::setProfilerDataStorePath(String const& folder) {
    setFolderOf(profilerLocation, folder);
}
String const& DataStoreSettings::profilerDataStoreFilePath() {
    return filePathOf(profilerLocation);
}

String const& DataStoreSettings::appStateDataStorePath() { return folderOf(appStateLocation); }
void DataStoreSettings::setAppStateDataStorePath(String const& folder) {
    setFolderOf(appStateLocation, folder);
}
String const& DataStoreSettings::appStateDataStoreFilePath() {
    return filePathOf(appStateLocation);
}

String const& DataStoreSettings::generalDataStorePath() { return folderOf(generalLocation); }
void DataStoreSettings::setGeneralDataStorePath(String const& folder) {
    setFolderOf(generalLocation, folder);
}
String const& DataStoreSettings::generalDataStoreFilePath() { return filePathOf(generalLocation); }

}  // namespace zrn
