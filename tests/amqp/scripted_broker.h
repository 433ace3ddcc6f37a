#pragma once

#include <QByteArray>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

// A broker played by the test on a loopback socket of its own: it answers the opening
// handshake and the set-up requests of its client, records every frame the client sends,
// and writes whatever bytes the test hands it. A client that comes again after its
// connection was lost is served the same way (and answered again after go_silent).
// Frames are written from the AMQP 0-9-1 grammar by hand (frame type, channel, size,
// payload, end octet 0xCE), not by the library under test.
class scripted_broker {
public:
    struct frame {
        uint8_t type = 0;
        uint16_t channel = 0;
        QByteArray payload;
        uint16_t class_id() const;
        uint16_t method_id() const;
    };

    // `heartbeat_s`: what connection.tune proposes.
    explicit scripted_broker(uint16_t heartbeat_s = 0);
    ~scripted_broker();
    scripted_broker(const scripted_broker&) = delete;
    scripted_broker& operator=(const scripted_broker&) = delete;

    QString url() const;
    // Writes raw bytes to the client.
    void send(const QByteArray& bytes);
    // The same in pieces of `chunk` bytes, with a pause between them.
    void send_in_pieces(const QByteArray& bytes, int chunk, int pause_ms);
    // Stops answering the present client (heartbeats included) without closing the socket.
    void go_silent() { m_silent = true; }
    // How many connections were accepted so far.
    int clients() const { return m_clients; }
    // What the client opened with: the protocol header.
    QByteArray greeting() const;
    std::vector<frame> frames() const;
    // Whether the client sent this method (on this channel; -1: any).
    bool received(uint16_t class_id, uint16_t method_id, int channel = -1) const;
    int heartbeats_received() const;
    // Whether the client closed the socket.
    bool client_gone() const { return m_client_gone; }

    // Encoders after the grammar.
    static QByteArray frame_bytes(uint8_t type, uint16_t channel, const QByteArray& payload);
    static QByteArray method(uint16_t channel, uint16_t class_id, uint16_t method_id, const QByteArray& args);
    static QByteArray short_uint(uint16_t v);
    static QByteArray long_uint(uint32_t v);
    static QByteArray longlong_uint(uint64_t v);
    static QByteArray short_string(const QByteArray& s);
    static QByteArray long_string(const QByteArray& s);

private:
    void serve();
    void serve_client();
    bool read_exactly(char* into, std::size_t n);
    void answer(const frame& f);

    int m_listen_fd = -1;
    std::atomic<int> m_client_fd{-1};
    uint16_t m_port = 0;
    uint16_t m_heartbeat_s = 0;
    std::atomic<bool> m_silent{false};
    std::atomic<bool> m_client_gone{false};
    std::atomic<int> m_clients{0};
    std::atomic<bool> m_stopping{false};
    mutable std::mutex m_mutex;
    std::mutex m_write_mutex;
    QByteArray m_greeting;
    std::vector<frame> m_frames;
    std::thread m_thread;
};
