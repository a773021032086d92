#include <spdlog/spdlog.h>

#include "orvane_kestrix/logging.hpp"
#include "orvane_kestrix/workers/context_builder/constants.hpp"

namespace orvane_kestrix {

std::shared_ptr<spdlog::logger> context_logger() {
    // Created once, without sinks: records go nowhere until an application attaches one.
    static const std::shared_ptr<spdlog::logger> logger = [] {
        std::string name(CONTEXT_LOGGER_NAME);
        if (auto existing = spdlog::get(name)) return existing;
        auto created = std::make_shared<spdlog::logger>(name);
        created->set_level(spdlog::level::trace);
        spdlog::register_logger(created);
        return created;
    }();
    return logger;
}

namespace {
thread_local std::optional<std::string> current_error;
}

const std::optional<std::string>& attached_error() { return current_error; }

void warn_with_error(spdlog::logger& logger, const std::string& message, std::exception_ptr error) {
    std::optional<std::string> text;
    if (error) {
        try {
            std::rethrow_exception(error);
        } catch (const std::exception& e) {
            text = e.what();
        } catch (...) {
            text = "unknown error";
        }
    }
    current_error = std::move(text);
    logger.warn(message);
    current_error.reset();
}

}  // namespace orvane_kestrix
