#pragma once

#include <QString>
#include <QtGlobal>
#include <functional>

namespace interfaces {

// Optional capability of a store whose commit returns once its writes are in the
// operating system's hands, before they are on the disk: another thread makes them
// durable. Commits are numbered by tickets; whatever speaks of a commit's writes (an
// acknowledgement, a publication, a command reply, a downlink) waits until
// durable_ticket() has reached that commit's ticket.
//
// A store without this capability is durable when its commit returns.
class IDurableCommits {
public:
    virtual ~IDurableCommits() = default;
    // The ticket of the last commit made on the event-loop thread (0: none yet).
    virtual quint64 commit_ticket() const = 0;
    // Every commit up to this ticket is on the disk.
    virtual quint64 durable_ticket() const = 0;
    // `advanced` runs on the event-loop thread after durable_ticket() has grown;
    // `failed` runs there when the writes cannot be made durable (the disk refused a
    // sync): nothing unsynced may then be taken as stored, and the caller should stop.
    virtual void on_durable(std::function<void()> advanced, std::function<void(const QString&)> failed) = 0;
    // Waits until `ticket` is durable. Returns false (after calling `failed`) when it
    // cannot become durable.
    virtual bool wait_durable(quint64 ticket) = 0;
};

}  // namespace interfaces
