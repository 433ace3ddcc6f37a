#include "app/signal_watcher.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

namespace {

int s_fds[2] = {-1, -1};  // [0] read by the notifier, [1] written by the handler
constexpr int watched_signals[] = {SIGTERM, SIGINT};

void on_signal(int signal_number) {
    const int saved_errno = errno;
    const unsigned char byte = static_cast<unsigned char>(signal_number);
    // A full buffer means stop requests are already pending: dropping this one is fine.
    [[maybe_unused]] const ssize_t written = ::write(s_fds[1], &byte, 1);
    errno = saved_errno;
}

bool install_handlers(void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signal_number : watched_signals) {
        if (::sigaction(signal_number, &action, nullptr) != 0) {
            return false;
        }
    }
    return true;
}

void close_pair() {
    for (int& fd : s_fds) {
        if (fd >= 0) {
            ::close(fd);
            fd = -1;
        }
    }
}

}  // namespace

signal_watcher::signal_watcher(QObject* parent) : QObject(parent) {
    if (s_fds[0] >= 0) {
        qWarning("signal_watcher: another instance is already active");
        return;
    }
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, s_fds) != 0) {
        qWarning("signal_watcher: socketpair failed: %s", strerror(errno));
        return;
    }
    m_notifier = std::make_unique<QSocketNotifier>(s_fds[0], QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, &signal_watcher::on_readable);
    if (!install_handlers(on_signal)) {
        qWarning("signal_watcher: sigaction failed: %s", strerror(errno));
        m_notifier.reset();
        close_pair();
    }
}

signal_watcher::~signal_watcher() {
    if (!m_notifier) {
        return;
    }
    install_handlers(SIG_DFL);
    m_notifier.reset();
    close_pair();
}

void signal_watcher::on_readable() {
    unsigned char byte = 0;
    while (::read(s_fds[0], &byte, 1) == 1) {
        emit termination_requested(byte);
    }
}
