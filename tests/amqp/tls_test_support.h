#pragma once

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

// The TLS listener of the private test broker (scripts/test-broker) and a CA of its own.
namespace tls_test {

// The amqps URL of the broker's TLS listener and the CA file that signed its certificate;
// empty when the script has no TLS listener (QUILLON_TEST_BROKER_TLS=0).
QString broker_tls_url();
QString broker_ca_file();
// True when the run asked for a broker without TLS: the TLS tests then skip.
bool tls_switched_off();

// A second throwaway CA, made with openssl, that signed nothing the broker has.
class foreign_ca {
public:
    foreign_ca();
    bool valid() const { return m_valid; }
    QString file() const { return m_dir.filePath("ca.pem"); }

private:
    QTemporaryDir m_dir;
    bool m_valid = false;
};

// A TLS server on 127.0.0.1 (openssl s_server, no AMQP behind it) with a self-signed
// certificate whose only name is the given subjectAltName; file() is that certificate,
// to be used as the CA file.
class tls_server {
public:
    explicit tls_server(const QString& subject_alt_name);
    ~tls_server();
    bool valid() const { return m_port != 0; }
    int port() const { return m_port; }
    QString file() const { return m_dir.filePath("cert.pem"); }
    // True once a client completed a TLS handshake with it.
    bool handshake_done();

private:
    QTemporaryDir m_dir;
    QProcess m_server;
    QByteArray m_output;
    int m_port = 0;
};

}  // namespace tls_test
