// libFuzzer entry over the M-Bus decoder and the stages that follow it: any bytes are a
// payload. As in the driver, a payload whose security mode needs the meter's registry
// entry is decoded with one (the key and address of an encrypted seed, so that
// decryption runs and mutated ciphertext reaches the checks after it).
#include <QByteArray>
#include <cstddef>
#include <cstdint>

#include "decoder.h"
#include "eav.h"
#include "stored_message.h"

namespace {

model::meter_link registered_meter() {
    model::meter_link meter;
    meter.aes_key = QByteArray::fromHex("000102030405060708090a0b0c0d0e0f");
    meter.manufacturer = "AMB";
    meter.identification = "12345678";
    meter.version = 0;
    meter.medium = 3;
    return meter;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const model::meter_link meter = registered_meter();
    const QByteArray payload(reinterpret_cast<const char*>(data), int(size));
    const mbus::decode_result r =
        mbus::needs_meter_link(payload) ? mbus::decode(payload, meter) : mbus::decode(payload);
    mbus::to_eav(r, mbus::message_context());
    mbus::message_data(r);
    return 0;
}
