// Random and mutated payloads through the decoder (built here with the address and
// undefined-behaviour sanitizers): no crash, no read past the end, only the statuses
// the driver documents, and an error offset inside the payload.
#include <gtest/gtest.h>

#include <QJsonDocument>

#include <QRegularExpression>
#include <random>

#include "decoder.h"
#include "eav.h"
#include "stored_message.h"

namespace {

const char* const seeds[] = {
    "78041339300000",
    "7278563412a732010701000000041339300000",
    "7a2a000000d451932239300000",
    "78 0dfd0c03434241 026c0f33 046d32171f15 0f0102",
    "7802fc0368576b222a00 0d03c23412 0d03e23412 0e03129078563412",
    "7884808080808080808000133930000002fd1705000502000000c03f",
    "7a01e30000 42fd170200 426c0f33 2f2f 1fff",
};

// Encrypted telegrams (data/mbus_security.json) with the registry entry that decrypts them.
struct encrypted_seed {
    const char* hex;
    model::meter_link meter;
};

model::meter_link meter_of(const char* key, const char* manufacturer = "", const char* identification = "",
                           int version = -1, int medium = -1) {
    model::meter_link m;
    m.aes_key = QByteArray::fromHex(key);
    m.manufacturer = manufacturer;
    m.identification = identification;
    m.version = version;
    m.medium = medium;
    return m;
}

const encrypted_seed encrypted_seeds[] = {
    {"7a35001005 1e34c77cfe6c59b154b663297fe6c3f7",
     meter_of("000102030405060708090a0b0c0d0e0f", "AMB", "12345678", 0, 3)},
    {"7278563412 2d2c1b072a002005 fcc7049b3f17fddeb956afd493c5d05b36f06b808649b632525318101e8eaa5f "
     "02fd746d01",
     meter_of("0f1e2d3c4b5a69788796a5b4c3d2e1f0")},
    {"900f002c25030100001122334455667788 7a10001007 10 2932548d1d0a5bfd873b982fdc7cb081",
     meter_of("11223344556677889900aabbccddeeff", "ABC", "87654321", 1, 4)},
};

void check(const QByteArray& payload, const model::meter_link& meter = model::meter_link()) {
    // "parsed" or "error: <what>, at byte n", either followed by "; <note>" parts, or
    // "encrypted" or "decryption failed".
    static const QRegularExpression status_form("^(parsed|error: [^;]+(, at| at) byte \\d+)(; [^;]+)*$");
    static const QRegularExpression byte_form("at byte (\\d+)");
    // A detached copy so the sanitizer sees the payload's exact extent.
    const QByteArray exact(payload.constData(), payload.size());
    const mbus::decode_result r = mbus::decode(exact, meter);
    if (r.status == "encrypted" || r.status == "decryption failed") {
        ASSERT_TRUE(r.records.empty());
        ASSERT_FALSE(r.security_problem.isEmpty());
        return;
    }
    ASSERT_TRUE(status_form.match(r.status).hasMatch()) << r.status.toStdString();
    auto offsets = byte_form.globalMatch(r.status);
    while (offsets.hasNext()) {
        ASSERT_LE(offsets.next().captured(1).toInt(), exact.size()) << r.status.toStdString();
    }
    // The later stages must cope with whatever was kept.
    mbus::message_context ctx;
    mbus::to_eav(r, ctx);
    // The stored text written directly is Qt's text of the same document, whatever was kept.
    ASSERT_EQ(mbus::message_data_text(r),
              QJsonDocument(mbus::message_data(r)).toJson(QJsonDocument::Compact));
}

TEST(MbusRobustness, RandomPayloads) {
    std::mt19937_64 rng(20240315);
    const uint8_t starts[] = {0x78, 0x7a, 0x72, 0x90};
    for (int i = 0; i < 40000; ++i) {
        QByteArray p;
        const int length = int(rng() % 48);
        for (int j = 0; j < length; ++j) {
            p.append(char(rng() & 0xff));
        }
        if (!p.isEmpty() && rng() % 4 != 0) {
            p[0] = char(starts[rng() % 4]);  // mostly a served CI field, to reach the records
        }
        check(p);
        if (HasFatalFailure()) {
            FAIL() << "payload " << p.toHex().toStdString();
        }
    }
}

TEST(MbusRobustness, MutatedKnownGoodPayloads) {
    std::mt19937_64 rng(13757);
    for (const char* seed : seeds) {
        const QByteArray good = QByteArray::fromHex(seed);
        for (int i = 0; i < 10000; ++i) {
            QByteArray p = good;
            const int edits = 1 + int(rng() % 4);
            for (int e = 0; e < edits && !p.isEmpty(); ++e) {
                const int at = int(rng() % p.size());
                switch (rng() % 4) {
                    case 0:
                        p[at] = char(rng() & 0xff);
                        break;
                    case 1:
                        p[at] = char(p[at] ^ (1 << (rng() % 8)));
                        break;
                    case 2:
                        p.truncate(at);
                        break;
                    default:
                        p.insert(at, char(rng() & 0xff));
                        break;
                }
            }
            check(p);
            if (HasFatalFailure()) {
                FAIL() << "payload " << p.toHex().toStdString();
            }
        }
    }
}

// Decryption paths: mutated encrypted telegrams with the keys that decrypt the originals
// (a flipped ciphertext bit makes the plain records random), and every truncation.
TEST(MbusRobustness, MutatedEncryptedPayloadsWithTheirKeys) {
    std::mt19937_64 rng(757);
    for (const encrypted_seed& seed : encrypted_seeds) {
        const QByteArray good = QByteArray::fromHex(QByteArray(seed.hex).replace(' ', ""));
        check(good, seed.meter);
        ASSERT_EQ(mbus::decode(good, seed.meter).decrypted, true) << seed.hex;
        for (int n = 0; n <= good.size(); ++n) {
            check(good.left(n), seed.meter);
        }
        for (int i = 0; i < 5000; ++i) {
            QByteArray p = good;
            const int at = int(rng() % p.size());
            if (rng() % 2 == 0) {
                p[at] = char(p[at] ^ (1 << (rng() % 8)));
            } else {
                p[at] = char(rng() & 0xff);
            }
            check(p, seed.meter);
            if (HasFatalFailure()) {
                FAIL() << "payload " << p.toHex().toStdString();
            }
        }
    }
}

TEST(MbusRobustness, EveryTruncationOfTheSeeds) {
    for (const char* seed : seeds) {
        const QByteArray good = QByteArray::fromHex(seed);
        for (int n = 0; n <= good.size(); ++n) {
            check(good.left(n));
        }
    }
}

}  // namespace
