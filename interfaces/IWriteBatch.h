#pragma once

namespace interfaces {
class IDurableCommits;
}

namespace interfaces {

// Optional capability of a store back end: the writes of several messages in one
// transaction, each message's own writes kept or undone as a unit. The engine opens a
// batch for a burst of deliveries and acknowledges them only after commit_batch()
// has returned, so what was acknowledged is stored all the same; the store saves one
// commit (and its page writes) per message.
//
// Items nest: a unit of work inside another one (a step after a message's own writes)
// can be undone without the outer one. Without a batch open, every store call commits
// by itself as before.
class IWriteBatch {
public:
    virtual ~IWriteBatch() = default;
    virtual void begin_batch() = 0;
    // Opens a unit inside the batch (inside the innermost open unit, if any).
    virtual void begin_item() = 0;
    // keep = false undoes everything written since the matching begin_item(). Returns
    // false when the batch's transaction is gone (the database rolled it back after an
    // error): nothing of the batch is stored, and commit_batch() will throw.
    virtual bool end_item(bool keep) = 0;
    // Throws when the commit fails; nothing of the batch is stored then.
    virtual void commit_batch() = 0;
    virtual bool batch_open() const = 0;
    // The store's durability tickets, when its commits become durable only later.
    virtual IDurableCommits* durable_commits() { return nullptr; }
};

}  // namespace interfaces
