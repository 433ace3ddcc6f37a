#pragma once

#include <QJsonObject>
#include <functional>
#include <memory>

#include "interfaces/factories.h"

using driver_builder_signature = std::shared_ptr<interfaces::IDriver>(
    std::shared_ptr<interfaces::IMessagesDatabase>, std::shared_ptr<interfaces::IEAVDatabase>,
    interfaces::dl_sender, int, int);

// How the engine obtains its driver: `build` creates it from the stores, the
// downlink-sending callback, the stored-data time-to-live and the instance position;
// `state` is the driver state store the builder hands to the driver.
template <class Signature>
struct DriverBuilderImpl {
    std::function<Signature> build;
    std::function<std::shared_ptr<interfaces::IDriverState>()> state;
};

using DriverBuilder = DriverBuilderImpl<driver_builder_signature>;
