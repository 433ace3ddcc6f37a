#pragma once

namespace interfaces {

// Optional capability of a store back end: the writes of several messages in one
// transaction, each message's own writes kept or undone as a unit. The engine opens a
// batch for a burst of deliveries and acknowledges them only after commit_batch()
// has returned, so what was acknowledged is stored all the same; the store saves one
// commit (and its page writes) per message.
//
// Without a batch open, every store call commits by itself as before.
class IWriteBatch {
public:
    virtual ~IWriteBatch() = default;
    virtual void begin_batch() = 0;
    // Opens the unit of one message inside the batch.
    virtual void begin_item() = 0;
    // keep = false undoes everything written since begin_item().
    virtual void end_item(bool keep) = 0;
    // Throws when the commit fails; nothing of the batch is stored then.
    virtual void commit_batch() = 0;
    virtual bool batch_open() const = 0;
};

}  // namespace interfaces
