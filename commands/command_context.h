#pragma once

#include <QString>
#include <memory>

#include "app/config.h"
#include "app/logger.h"
#include "engine/engine_services.h"
#include "engine/ownership.h"
#include "interfaces/IDeviceClientsDatabase.h"
#include "interfaces/IDriver.h"
#include "interfaces/IDriverState.h"
#include "interfaces/IEAVDatabase.h"
#include "interfaces/IMessagesDatabase.h"

// Everything a command handler may need, bound once at start-up.
struct command_context {
    logger* log = nullptr;
    EngineConfig engine_config;
    PMConfig pm_config;
    rabbit_api_config api_config;
    std::shared_ptr<interfaces::IMessagesDatabase> messages;
    std::shared_ptr<interfaces::IEAVDatabase> eav;
    std::shared_ptr<interfaces::IDriverState> state;
    std::shared_ptr<interfaces::IDeviceClientsDatabase> clients;
    std::shared_ptr<interfaces::IDriver> driver;
    // The driver's acceptance rule, compiled once with the driver (the engine's).
    std::shared_ptr<const driver_acceptance> acceptance;
    IEngineServices* engine = nullptr;
    // Routing-key prefix under which the network server re-delivers requested history.
    QString history_routing_key_prefix;

    ownership owner() const {
        return ownership(acceptance, clients, messages, engine_config.settings.check_is_mine);
    }
};
