#include "service_failure.hpp"

#include <iostream>
#include <string>

#include "command.hpp"
#include "orvane_kestrix/service/errors.hpp"

namespace orvane_kestrix::app {

int exit_code_for(const std::exception& error) {
    if (dynamic_cast<const service::MissingRepositoryError*>(&error) != nullptr) return 2;
    return 1;
}

int report_failure(std::string_view command, const std::exception& error) {
    if (dynamic_cast<const service::UnknownComponentError*>(&error) != nullptr) {
        std::cerr << error.what() << '\n';
    } else {
        std::cerr << command << ": " << one_line(error.what()) << '\n';
    }
    return exit_code_for(error);
}

}  // namespace orvane_kestrix::app
