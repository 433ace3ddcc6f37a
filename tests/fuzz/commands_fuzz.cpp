// libFuzzer entry over the command API: any bytes, parsed as the service's command client
// parses a delivery, become a command envelope, and the handler its "msg_type" names runs
// it against the in-memory store (the fixture of the command tests). Errors a handler
// throws are its answer, as the command client maps them (a standard exception, a store's
// error text); a crash or a sanitizer report is a fault.
#include <QByteArray>
#include <QJsonDocument>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>

#include "amqp/api_message.h"
#include "command_fixture.h"
#include "model/json_body.h"

namespace {

// The in-memory store and the fixture's log grow with every command: start afresh now
// and then, so that long runs stay bounded in memory and disk. Rarely: every fixture
// loads its own copy of the store plugin, whose coverage counters libFuzzer then counts
// as new (the "cov" figure rises by the plugin's edges at each reload).
constexpr int runs_per_fixture = 250000;

std::unique_ptr<command_test::CommandFixture> fixture;
int runs = 0;

command_test::CommandFixture& current_fixture() {
    if (!fixture || ++runs % runs_per_fixture == 0) {
        fixture.reset();
        fixture = std::make_unique<command_test::CommandFixture>();
    }
    return *fixture;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray body = QByteArray::fromRawData(reinterpret_cast<const char*>(data), int(size));
    const api_message message = api_message::from_json(model::object_of_body(body));
    command_test::CommandFixture& commands = current_fixture();
    std::shared_ptr<ICommandHandler> handler;
    try {
        handler = commands.factory(message.msg_type);
    } catch (const std::exception&) {
        return 0;  // an unknown command: the client answers with the error
    }
    try {
        QJsonDocument(handler->execute(message)).toJson();
    } catch (...) {
        // The handler's error answer: the command client logs it and rejects the command.
    }
    return 0;
}
