#include "app/composition.h"

std::unique_ptr<QObject> compose_service(const startup_records&) { return nullptr; }
