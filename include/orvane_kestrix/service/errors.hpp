#pragma once
// The errors a front end receives from the service layer, one type per thing that can go
// wrong, so that each front end maps them (to exit codes, to protocol errors) without reading
// messages. what() is one line, worded for the person or agent who asked.

#include <stdexcept>
#include <string>

namespace orvane_kestrix::service {

class ServiceError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The repository root is not a directory. what(): "REPO: not a directory".
class MissingRepositoryError : public ServiceError {
public:
    explicit MissingRepositoryError(const std::string& repo) : ServiceError(repo + ": not a directory") {}
};

// The request names a component the index does not have. what(): "Unknown component: NAME".
class UnknownComponentError : public ServiceError {
public:
    using ServiceError::ServiceError;
};

// The index server holds no repository of the requested name; what() names the command that
// indexes it.
class UnknownRepositoryError : public ServiceError {
public:
    using ServiceError::ServiceError;
};

// The index file cannot be used (damaged, foreign, newer schema); what() names --rebuild.
class DamagedIndexError : public ServiceError {
public:
    using ServiceError::ServiceError;
};

// Another index run is updating the index, and the caller chose not to wait for it.
// what(): "another index run (pid N) is updating this index".
class IndexBusyError : public ServiceError {
public:
    using ServiceError::ServiceError;
};

// Any other failure of the index while it was read or written.
class IndexAccessError : public ServiceError {
public:
    using ServiceError::ServiceError;
};

}  // namespace orvane_kestrix::service
