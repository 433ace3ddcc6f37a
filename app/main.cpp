#include <exception>
#include <memory>

#include "app/Application.h"

int main(int argc, char* argv[]) {
    std::unique_ptr<Application> app;
    try {
        app = std::make_unique<Application>(argc, argv);
    } catch (const std::exception&) {
        return 1;  // the Application has already reported why
    }
    if (app->printed_configuration()) {
        return 0;
    }
    Application::exec();
    app.reset();
    return 0;
}
