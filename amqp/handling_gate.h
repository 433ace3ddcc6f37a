#pragma once

#include <QObject>
#include <QPointer>
#include <deque>
#include <functional>

// One message at a time. Handling a delivery, a command or a timer's work may spin a
// local event loop (a publisher waiting for its link); whatever arrives meanwhile must
// not start inside it. Entry points check busy() and, when it is, leave their work with
// when_free(): it runs, in arrival order, as soon as the handling in progress has ended.
class handling_gate {
public:
    handling_gate() = default;
    handling_gate(const handling_gate&) = delete;
    handling_gate& operator=(const handling_gate&) = delete;

    bool busy() const { return m_depth > 0; }
    // Runs `work` once the gate is free, unless `context` is gone by then.
    void when_free(QObject* context, std::function<void()> work);
    std::size_t waiting() const { return m_waiting.size(); }

    // Marks the gate busy for its lifetime; a null gate marks nothing.
    class entry {
    public:
        explicit entry(handling_gate* gate);
        ~entry();
        entry(const entry&) = delete;
        entry& operator=(const entry&) = delete;

    private:
        handling_gate* m_gate = nullptr;
    };

private:
    void run_waiting();

    struct waiting_work {
        QPointer<QObject> context;
        std::function<void()> work;
    };
    std::deque<waiting_work> m_waiting;
    int m_depth = 0;
    bool m_running_waiting = false;
};
