#include "app/caught_failure.h"

caught_failure caught_failure::current() {
    return of(std::current_exception());
}

caught_failure caught_failure::of(const std::exception_ptr& thrown) {
    caught_failure failure;
    if (!thrown) {
        return failure;
    }
    try {
        std::rethrow_exception(thrown);
    } catch (const std::exception& e) {
        failure.thrown = kind::standard;
        failure.text = QString::fromUtf8(e.what());
    } catch (const QString& text) {
        failure.thrown = kind::text;
        failure.text = text;
    } catch (...) {
        failure.thrown = kind::other;
    }
    return failure;
}

QString caught_failure::message() const {
    return thrown == kind::other ? QStringLiteral("unknown exception") : text;
}
