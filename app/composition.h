#pragma once

#include <QObject>
#include <QSettings>
#include <memory>

#include "app/config.h"
#include "app/logger.h"

// Every configuration record read at start-up, handed to the composition of the
// object graph.
struct startup_records {
    QSettings* settings = nullptr;
    PMConfig pm;
    general_settings general;
    EngineConfig engine;
    rabbit_receiver_cfg receiver;
    rabbit_api_config api;
    rabbit_publisher_clients_config clients;
    rabbit_publisher_dl_config dl;  // never filled from the file
    logger* log = nullptr;
    QObject* parent = nullptr;
};

// Composes the object graph (plugins, stores, driver, AMQP endpoints, command handlers)
// and returns the engine, which owns the rest. Throws on a start-up failure.
std::unique_ptr<QObject> compose_service(const startup_records& records);
