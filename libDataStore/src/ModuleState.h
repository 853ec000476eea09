#pragma once

// The module-wide objects of libDataStore, built when the library is loaded and destroyed in
// reverse order when it is unloaded. Other files reach them only through these accessors, so
// no static initialiser elsewhere can touch them before they exist.

#include <libCommon/GlobalMutex.h>
#include <libCommon/String.h>

namespace zrn {
namespace module {

// One named, process-wide mutex per store family.
GlobalMutex& generalStoreMutex();       // "general_store"
GlobalMutex& eventStoreMutex();         // "event_store"
GlobalMutex& appStateStoreMutex();      // "appstate_store"
GlobalMutex& softwareDiagStoreMutex();  // "softwarediag_store"

// Guards the store locations of DataStoreSettings.
mutex::CriticalSection& settingsSection();

// A copy of what a DataStoreSettings getter returns, made before the settings section is left.
// The getters hand out a reference to a value the next call (on any thread) rewrites, so a
// store opening its default file copies the path through this.
String settingsCopy(String const& (*getter)());

// The constant strings SQL text is built from.
String const& quote();      // '
String const& comma();      // ,
String const& backquote();  // `

}  // namespace module
}  // namespace zrn
