#include "amqp/handling_gate.h"

void handling_gate::when_free(QObject* context, std::function<void()> work) {
    m_waiting.push_back({QPointer<QObject>(context), std::move(work)});
}

handling_gate::entry::entry(handling_gate* gate) : m_gate(gate) {
    if (m_gate) {
        ++m_gate->m_depth;
    }
}

handling_gate::entry::~entry() {
    if (m_gate && --m_gate->m_depth == 0) {
        m_gate->run_waiting();
    }
}

// Each waiting piece of work takes the gate itself; what it leaves waiting is run by
// this same loop, so the stack does not grow with the backlog.
void handling_gate::run_waiting() {
    if (m_running_waiting) {
        return;
    }
    struct running {
        bool& flag;
        explicit running(bool& f) : flag(f) { flag = true; }
        ~running() { flag = false; }
    } mark(m_running_waiting);
    while (!m_waiting.empty() && m_depth == 0) {
        waiting_work next = std::move(m_waiting.front());
        m_waiting.pop_front();
        if (next.context) {
            next.work();
        }
    }
}
