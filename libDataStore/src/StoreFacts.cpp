// The store family as the table reader sees it: names, tables and schema versions.

#include <libDataStore/StoreReader.h>

#include "StoreVersions.h"

namespace zrn {

std::vector<StoreFacts> const& storeFamily() {
    // Tables in the order a new file gets them.
    static std::vector<StoreFacts> const family = {
        {StoreKind::AppState,
         "appstate",
         "appstate.db",
         "an application-state store",
         "AppState",
         nullptr,
         -1,
         {"AppState"}},
        {StoreKind::General,
         "genstore",
         "genstore.db",
         "a general store",
         "GenericLog",
         "Version",
         schema::kGeneralVersion,
         {"Version", "GenericLog", "KeyValues"}},
        {StoreKind::Event,
         "event",
         "event.db",
         "an event store",
         "ApplicationRuns",
         "Versioning",
         schema::kEventVersion,
         {"Versioning", "ApplicationRuns", "ScriptRuns", "ScriptSpecs", "TestRuns", "TestRunEvents",
          "TestRunTips", "AlertTips", "AlertKeyValues", "ScriptletRuns", "Alerts", "ProfilerDiffs",
          "Measurements"}},
        {StoreKind::SoftwareDiag,
         "softwarediagevent",
         "softwarediagevent.db",
         "a software-diagnostics store",
         "Sessions",
         "Versioning",
         schema::kSoftwareDiagVersion,
         {"Versioning", "Sessions", "RunTransactions", "FixTransactions", "SoftwareDiagnostics",
          "Issues", "FixActions", "Issues_FixActions"}},
    };
    return family;
}

StoreFacts const& factsOf(StoreKind kind) {
    for (StoreFacts const& facts : storeFamily()) {
        if (facts.kind == kind) return facts;
    }
    return storeFamily().front();
}

}  // namespace zrn
