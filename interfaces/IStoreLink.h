#pragma once

#include <QString>
#include <stdexcept>

namespace interfaces {

// Thrown by a store operation when the store's server cannot be reached (connection
// refused, lost, or a server shutting down). It says nothing about the message being
// handled: the engine hands such a delivery back to its queue instead of rejecting it,
// and pauses until the link is back.
class store_unavailable : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Optional capability of a store whose server can be away (a database server reached
// over the network). An embedded store has none.
class IStoreLink {
public:
    enum class link_state { up, connecting, down };
    virtual ~IStoreLink() = default;
    // Advances the link without waiting on the network: starts a connection when it is
    // down, polls one that is being made, and says where it stands. Called from the
    // event-loop thread on a back-off timer while the store is away; it must return
    // within a few milliseconds.
    virtual link_state poll_link() = 0;
    // What the last failure said, for the one log line of an outage.
    virtual QString link_error() const = 0;
};

}  // namespace interfaces
