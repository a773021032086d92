#pragma once
// Logging with an attached error. spdlog records carry only a message, so the error that
// caused a warning travels beside it: sinks called during the log call read it from here.

#include <memory>
#include <optional>
#include <string>

#include <spdlog/spdlog.h>

namespace orvane_kestrix {

// The error attached to the record being logged on this thread, if any.
const std::optional<std::string>& attached_error();

// Logs `message` at warning level with the text of `error` attached for the sinks to show.
void warn_with_error(spdlog::logger& logger, const std::string& message, std::exception_ptr error);

}  // namespace orvane_kestrix
