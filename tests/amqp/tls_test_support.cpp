#include "tls_test_support.h"

#include <QDeadlineTimer>

namespace tls_test {

namespace {

bool run_openssl(const QString& dir, const QStringList& args) {
    QProcess p;
    p.setWorkingDirectory(dir);
    p.start("openssl", args);
    return p.waitForFinished(10000) && p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0;
}

// A self-signed certificate (and so a CA of its own) with the given key and certificate files.
bool self_signed(const QString& dir, const QString& subject, const QStringList& extra, const QString& key,
                 const QString& cert) {
    return run_openssl(
        dir, QStringList{"req", "-x509", "-new", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                         "-nodes", "-days", "1", "-subj", subject} +
                 extra + QStringList{"-keyout", key, "-out", cert});
}

QString script_output(const QString& command) {
    QProcess p;
    p.start(QUILLON_TEST_BROKER, {command});
    if (!p.waitForFinished(10000) || p.exitStatus() != QProcess::NormalExit || p.exitCode() != 0) {
        return QString();
    }
    return QString::fromUtf8(p.readAllStandardOutput()).trimmed();
}

}  // namespace

QString broker_tls_url() {
    static const QString url = script_output("tls-url");
    return url;
}

QString broker_ca_file() {
    static const QString file = script_output("ca-file");
    return file;
}

bool tls_switched_off() {
    return qgetenv("QUILLON_TEST_BROKER_TLS") == "0";
}

foreign_ca::foreign_ca() {
    m_valid = self_signed(m_dir.path(), "/CN=foreign test CA", {}, "ca.key", "ca.pem");
}

tls_server::tls_server(const QString& subject_alt_name) {
    if (!self_signed(m_dir.path(), "/CN=test server", {"-addext", "subjectAltName=" + subject_alt_name},
                     "key.pem", "cert.pem")) {
        return;
    }
    m_server.setWorkingDirectory(m_dir.path());
    m_server.setProcessChannelMode(QProcess::MergedChannels);
    m_server.start("openssl", {"s_server", "-accept", "127.0.0.1:0", "-cert", "cert.pem", "-key", "key.pem"});
    // It tells the port it took: "ACCEPT 127.0.0.1:<port>".
    const QByteArray announce = "ACCEPT 127.0.0.1:";
    QByteArray output;
    // Up to 10 s in all: on a loaded machine (or under the sanitizers) openssl may say
    // nothing for longer than one short wait.
    const QDeadlineTimer deadline(10000);
    while (!deadline.hasExpired() && m_server.state() != QProcess::NotRunning) {
        if (!m_server.waitForReadyRead(200)) {
            continue;
        }
        output += m_server.readAll();
        const int at = output.indexOf(announce);
        const int end = at < 0 ? -1 : output.indexOf('\n', at);
        if (end > 0) {
            m_port = output.mid(at + announce.size(), end - at - announce.size()).trimmed().toInt();
            break;
        }
    }
}

bool tls_server::handshake_done() {
    m_output += m_server.readAll();
    return m_output.contains("CIPHER is ");
}

tls_server::~tls_server() {
    m_server.kill();
    m_server.waitForFinished(5000);
}

}  // namespace tls_test
