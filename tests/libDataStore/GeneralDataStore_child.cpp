// Logs into one general store from its own process:
//   GeneralDataStore_child <path> <typeUUID> <key prefix> <peer prefix> <rounds> <sync dir>
// Two children, each given the other's prefix, meet at a barrier before every round (files
// "<sync dir>/<prefix>.<round>"), so that they open the file and log at the same moment.
// Round r logs twice:
// - a new log (typeUUID, "R<r>") with <prefix>x = "1" and "shared" = prefix, so both
//   children race to create the same log;
// - the log (typeUUID, "G") with the key/values <prefix>0 .. <prefix>r (values "v0" ..) and
//   the shared key "last" set to the prefix, so every round updates one growing log.
// Exit status 0 when every call succeeded.

#include <libDataStore/GeneralDataStore.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

namespace {

// Announces `round` and spins until the peer has announced it too; false after ten seconds
// (the peer failed).
bool meet(std::string const& dir, std::string const& self, std::string const& peer, int round) {
    std::ofstream(dir + "/" + self + "." + std::to_string(round)) << "ready";
    std::string const other = dir + "/" + peer + "." + std::to_string(round);
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    // Spinning rather than sleeping lets both children leave the barrier within microseconds.
    for (long spins = 0; ::access(other.c_str(), F_OK) != 0; ++spins) {
        if (spins % 1024 == 0 && std::chrono::steady_clock::now() > deadline) return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 7) {
        std::fprintf(stderr, "usage: %s path typeUUID prefix peer rounds syncdir\n", argv[0]);
        return 2;
    }
    std::string const type = argv[2];
    std::string const prefix = argv[3];
    std::string const peer = argv[4];
    int const rounds = std::atoi(argv[5]);
    std::string const sync = argv[6];

    if (!meet(sync, prefix, peer, -1)) return 4;
    zrn::GeneralDataStore store{zrn::String(argv[1])};
    if (!store.isInitialized()) return 3;
    int failures = 0;
    for (int r = 0; r < rounds; ++r) {
        if (!meet(sync, prefix, peer, r)) return 4;
        zrn::LogKeyValueSet fresh;
        fresh.append(zrn::LogKeyValue(prefix + "x", "1"));
        fresh.append(zrn::LogKeyValue("shared", prefix));
        zrn::GenericLog const log(type, "R" + std::to_string(r), "cat", prefix, 0u, fresh);
        if (!store.logOrUpdate(log)) ++failures;

        zrn::LogKeyValueSet growing;
        for (int i = 0; i <= r; ++i) {
            growing.append(zrn::LogKeyValue(prefix + std::to_string(i), "v" + std::to_string(i)));
        }
        growing.append(zrn::LogKeyValue("last", prefix));
        if (!store.logOrUpdate(zrn::GenericLog(type, "G", "cat", prefix, 0u, growing))) ++failures;
    }
    return failures == 0 ? 0 : 1;
}
