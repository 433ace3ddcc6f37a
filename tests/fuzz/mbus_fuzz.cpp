// libFuzzer entry over the M-Bus decoder and the stages that follow it: any bytes are a
// payload.
#include <QByteArray>
#include <cstddef>
#include <cstdint>

#include "decoder.h"
#include "eav.h"
#include "stored_message.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray payload(reinterpret_cast<const char*>(data), int(size));
    const mbus::decode_result r = mbus::decode(payload);
    mbus::to_eav(r, mbus::message_context());
    mbus::message_data(r);
    return 0;
}
