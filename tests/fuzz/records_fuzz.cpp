// libFuzzer entry over the readers of the network server's deliveries (uplinks,
// heartbeats, downlink reports) and of the other JSON records: any bytes that parse as a
// JSON object go through every reader, and what a reader returns is written back out.
// A reader never fails, so an exception escaping here is a fault (the fuzzer reports
// the abort).
#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtGlobal>
#include <cstddef>
#include <cstdint>

#include "model/json.h"
#include "model/json_body.h"

// Local times (the stored uplink's) go through the C library, which, while TZ is unset,
// looks at /etc/localtime again on every conversion: a third of the time per input. The
// same zone named once is read once.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    if (qEnvironmentVariableIsEmpty("TZ"))
        qputenv("TZ", ":/etc/localtime");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The receiver's own conversion of a delivery body.
    const QByteArray body = QByteArray::fromRawData(reinterpret_cast<const char*>(data), int(size));
    const QJsonObject o = model::object_of_body(body);

    const model::ul_app_message uplink = model::ul_app_message_from_json(o);
    const model::ul_hb_message heartbeat = model::ul_hb_message_from_json(o);
    model::modem_radio_summary(o);
    (void)uplink.payload.toHex();
    (void)heartbeat.payload.toHex();

    // A downlink report: the engine reads these three members of the delivery.
    model::dl_event report;
    report.modem_id = o.value("modem_id").toInt(0);
    report.msg_type = o.value("msg_type").toString();
    report.status_id = o.value("status_id").toString();

    QJsonDocument(model::to_json(model::ul_message_from_json(o))).toJson();
    QJsonDocument(model::to_json(model::dl_message_from_request(o))).toJson();
    QJsonDocument(model::to_json(model::dl_queues_from_json(o))).toJson();
    model::custom_query_from_json(o);
    model::dl_queue_status_from_name(o.value("status").toString());
    return 0;
}
