#include "app/composition.h"

#include <QCoreApplication>
#include <QSet>
#include <stdexcept>

#include "amqp/amqp_url.h"
#include "amqp/rabbit_api_man.h"
#include "amqp/rabbit_publisher.h"
#include "amqp/rabbit_receiver.h"
#include "commands/command_access.h"
#include "commands/command_context.h"
#include "commands/command_factory.h"
#include "engine/Engiene.h"
#include "metrics/metrics_server.h"
#include "plugins/PluginsManager.h"

namespace {

// Owns the plugin manager and the engine, and destroys the engine (with its endpoints,
// driver and handlers) before the plugin manager that holds the stores.
class service_graph : public QObject {
public:
    explicit service_graph(std::unique_ptr<PluginsManager> plugins) : m_plugins(std::move(plugins)) {}
    ~service_graph() override {
        m_metrics_endpoint.reset();
        m_engine.reset();
    }
    Q_DISABLE_COPY(service_graph)

    PluginsManager& plugins() { return *m_plugins; }
    void set_engine(std::unique_ptr<Engiene> engine) { m_engine = std::move(engine); }
    void set_metrics_endpoint(std::unique_ptr<http_endpoint> endpoint) {
        m_metrics_endpoint = std::move(endpoint);
    }

private:
    std::unique_ptr<PluginsManager> m_plugins;
    std::unique_ptr<Engiene> m_engine;
    // Stopped first: its thread reads the engine's metrics.
    std::unique_ptr<http_endpoint> m_metrics_endpoint;
};

QString history_prefix(const startup_records& records) {
    if (!records.general.history_routing_key_prefix.isEmpty()) {
        return records.general.history_routing_key_prefix;
    }
    // By default the network server re-delivers history under this instance's own
    // history words: <route>.<instance>.<protocol>.
    return QString("%1.%2.%3")
        .arg(records.general.history_route_key, records.pm.instance_names.value(0), records.pm.protocol);
}

std::shared_ptr<command_context> make_context(const startup_records& records, PluginsManager& plugins) {
    auto context = std::make_shared<command_context>();
    context->log = records.log;
    context->engine_config = records.engine;
    context->pm_config = records.pm;
    context->api_config = records.api;
    context->messages = plugins.messages_database();
    context->eav = plugins.eav_database();
    context->state = plugins.state_database();
    context->clients = plugins.clients_database();
    context->history_routing_key_prefix = history_prefix(records);
    return context;
}

// A broker URL that cannot be used would leave its link down for good: say so now.
void require_usable_url(const char* group, const QString& url) {
    const amqp::url_parts parts = amqp::url_parts::parse(url);
    if (!parts.valid) {
        throw std::runtime_error(QString("%1 R_LOGIN %2 cannot be used: %3")
                                     .arg(group, mask_url_password(url), parts.error)
                                     .toStdString());
    }
}

DriverBuilder make_driver_builder(PluginsManager& plugins) {
    DriverBuilder builder;
    builder.build = [&plugins](std::shared_ptr<interfaces::IMessagesDatabase> messages,
                               std::shared_ptr<interfaces::IEAVDatabase> eav, interfaces::dl_sender send_dl,
                               int ttl_seconds, int position) {
        return plugins.create_driver(std::move(messages), std::move(eav), std::move(send_dl), ttl_seconds,
                                     position);
    };
    builder.state = [&plugins] { return plugins.state_database(); };
    return builder;
}

// Counts served commands under their own names; a name without a handler counts as
// "unknown", so that hostile names cannot grow the metrics without bound.
rabbit_api_man::command_observer command_counter(std::shared_ptr<service_metrics> metrics) {
    QSet<QString> known;
    for (const command_row& row : command_table()) {
        known.insert(row.name);
    }
    return [metrics, known](const QString& name, const char* outcome, double seconds) {
        metrics->count_command(known.contains(name) ? name : QStringLiteral("unknown"), outcome, seconds);
    };
}

void start_metrics(const startup_records& records, Engiene& engine, service_graph& graph) {
    service_metrics& metrics = *engine.metrics();
    service_metrics::build_facts facts;
    facts.version = QCoreApplication::applicationVersion();
    facts.protocol = records.pm.protocol;
    facts.instance = records.pm.instance_names.value(0);
    facts.position = records.engine.position;
    facts.count = records.engine.instances;
    facts.start_time = records.engine.start_time;
    metrics.set_build(facts);
    engine.api()->set_command_observer(command_counter(engine.metrics()));
    const int port = records.general.metrics_port;
    if (port == 0) {
        return;
    }
    const QString& address = records.general.metrics_address;
    graph.set_metrics_endpoint(serve_metrics(engine.metrics(), address, port));
    const QString host = address.contains(':') ? "[" + address + "]" : address;
    log_line(*records.log, Info) << "metrics and health served on http://" << host << ":"
                                 << QString::number(port) << "/metrics and /health";
}

}  // namespace

std::unique_ptr<QObject> compose_service(const startup_records& records) {
    logger& log = *records.log;
    require_usable_url("AMQP_UL_SETTINGS", records.receiver.url);
    require_usable_url("AMQP_UL_CLIENT_SETTINGS", records.clients.url);
    require_usable_url("AMQP_API_SETTINGS", records.api.url);
    auto graph = std::make_unique<service_graph>(std::make_unique<PluginsManager>(records.pm, log));
    PluginsManager& plugins = graph->plugins();

    auto context = make_context(records, plugins);
    auto receiver = std::make_unique<rabbit_receiver>(log, records.receiver);
    auto publisher =
        std::make_unique<rabbit_publisher<rabbit_publisher_clients_config>>(log, records.clients);
    auto api = std::make_unique<rabbit_api_man>(log, records.api, make_command_factory(context));
    const command_access access(records.api);
    if (access.restricted()) {
        log_line(log, Info) << "commands are authorized by user: read \"" << records.api.allow_read
                            << "\", write \"" << records.api.allow_write << "\", admin \""
                            << records.api.allow_admin << "\"";
        api->set_access_check([access](const api_message& command) { return access.permits(command); });
    }

    auto engine = std::make_unique<Engiene>(make_driver_builder(plugins), records.engine, context->messages,
                                            context->eav, context->clients, context->state,
                                            std::move(receiver), std::move(publisher), std::move(api), log);
    context->driver = engine->driver();
    context->acceptance = engine->acceptance();
    context->engine = engine.get();
    start_metrics(records, *engine, *graph);
    graph->set_engine(std::move(engine));
    return graph;
}
