#pragma once

#include <libDataStore/Export.h>

#include <memory>

namespace zrn {

class AppStateDataStore;
class EventDataStore;
class GeneralDataStore;
class SoftwareDiagEventDataStore;

// Records many operations of one store as one transaction, so they cost one commit (one set of
// disk syncs) instead of one each:
//
//     zrn::StoreBatch batch(store);
//     store.logTestStart(...); store.logTestRunEvent(...); store.logTestFinished(...);
//     batch.commit();  // all of it is in the file, or (DatabaseError) none of it
//
// While it lives the batch holds the store family's named mutex, so other threads and other
// processes that use a store of that family wait until it ends: keep batches short (one test,
// say, not a whole day). Every operation of the store inside it runs its statements unchanged
// and joins the batch's transaction; an operation that runs its own transaction (logAlert(s),
// logOrUpdate, ...) becomes a savepoint in it, so it stays all-or-nothing and fails with the same
// values and messages as outside a batch. Nothing reaches the file before commit().
//
// - commit() makes the batch's work durable; should it fail it throws DatabaseError and nothing
//   of the batch is left. Committing twice throws DatabaseError.
// - The destructor rolls back what was not committed and never throws.
// - Batches nest: a second batch on the same store while one lives becomes a savepoint of the
//   first. Its commit() keeps its work for the outer batch to commit; destroyed uncommitted it
//   undoes only its own work.
// - Batches on two stores at once are two transactions, each committed on its own (not atomic
//   together). Threads that take batches on several stores must take them in one order.
// - A store whose connection is closed, that failed to open, or that was opened ReadOnly cannot
//   take a batch: the constructor throws DatabaseError and holds nothing.
// - Copies of an AppStateDataStore share its connection and join its batch. A copy of an
//   EventDataStore opens a database of its own (on an empty path), so the original's batch
//   neither covers nor waits for it. Another store object on the same file does wait for the
//   batch's end: used on the batch's own thread inside the batch, its writes fail with
//   DatabaseError once SQLite's busy timeout runs out.
//
// Outside any batch every store runs exactly the statements it always did. A batch belongs to
// the thread that made it and must end on that thread; it may not outlive its store.
class ZRN_DATASTORE_API StoreBatch {
public:
    // @throw DatabaseError when the store cannot take a batch (see above) or BEGIN fails.
    explicit StoreBatch(EventDataStore& store);
    explicit StoreBatch(GeneralDataStore& store);
    explicit StoreBatch(SoftwareDiagEventDataStore& store);
    explicit StoreBatch(AppStateDataStore& store);
    StoreBatch(StoreBatch const&) = delete;
    StoreBatch& operator=(StoreBatch const&) = delete;
    // Rolls back unless committed, then releases the named mutex. Never throws.
    ~StoreBatch();

    // @throw DatabaseError when the commit fails (nothing of the batch is then left) or the
    // batch was already committed.
    void commit();

private:
    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace zrn
