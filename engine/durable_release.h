#pragma once

#include <QtGlobal>
#include <deque>
#include <functional>
#include <vector>

namespace interfaces {
class IDurableCommits;
}

// What committed work lets go out (its publications, downlinks and settlements), held
// until the store says the commit is on the disk, and then run in the order of the
// commits. With a store that is durable when its commit returns, the next
// run_durable() runs it.
class durable_release {
public:
    using action = std::function<void()>;

    // Null: every commit is durable when it returns.
    void set_source(interfaces::IDurableCommits* source) { m_source = source; }
    bool deferring() const { return m_source != nullptr; }

    // Queues `actions` behind the store's last commit; run_durable() runs them.
    void after_commit(std::vector<action> actions);
    // Runs, in order, the queued actions whose commits are durable now; false when none ran.
    bool run_durable();
    // Waits until the store's last commit is durable. False when the store cannot make
    // it durable (it has told its listener so).
    bool wait_all();
    std::size_t waiting() const { return m_waiting.size(); }

private:
    struct entry {
        quint64 ticket = 0;
        std::vector<action> actions;
    };

    interfaces::IDurableCommits* m_source = nullptr;
    std::deque<entry> m_waiting;
    bool m_running = false;  // an action let the event loop run into run_durable()
};
