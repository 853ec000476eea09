#include "ModuleState.h"

namespace zrn {
namespace module {

namespace {

// Owns the settings critical section for the life of the module.
struct CriticalSectionOwner {
    CriticalSectionOwner() { mutex::init(section); }
    ~CriticalSectionOwner() { mutex::destroy(section); }
    CriticalSectionOwner(CriticalSectionOwner const&) = delete;
    CriticalSectionOwner& operator=(CriticalSectionOwner const&) = delete;
    mutex::CriticalSection section;
};

// Built at load in this order, destroyed in reverse at unload. Nothing in this library uses
// them from another static initialiser.
GlobalMutex g_generalStoreMutex("general_store");
GlobalMutex g_eventStoreMutex("event_store");
GlobalMutex g_appStateStoreMutex("appstate_store");
GlobalMutex g_softwareDiagStoreMutex("softwarediag_store");
CriticalSectionOwner g_settingsSection;
// One set of quoting strings serves the table layer and every store family alike.
String const g_quote("'");
String const g_comma(",");
String const g_backquote("`");

}  // namespace

GlobalMutex& generalStoreMutex() { return g_generalStoreMutex; }
GlobalMutex& eventStoreMutex() { return g_eventStoreMutex; }
GlobalMutex& appStateStoreMutex() { return g_appStateStoreMutex; }
GlobalMutex& softwareDiagStoreMutex() { return g_softwareDiagStoreMutex; }
mutex::CriticalSection& settingsSection() { return g_settingsSection.section; }
String const& quote() { return g_quote; }
String const& comma() { return g_comma; }
String const& backquote() { return g_backquote; }

}  // namespace module
}  // namespace zrn
