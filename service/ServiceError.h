#pragma once

#include <stdexcept>
#include <string>

namespace tarnwell::service {

/// A refusal or failure whose text is meant for the person who runs the service: what was wrong, and with
/// what.
struct ServiceError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// No room on the disk. Nothing half is left; the same request may succeed later.
struct StorageFullError : ServiceError {
    using ServiceError::ServiceError;
};

/// The disk did not take what was written: nothing of it is trusted, and it has been dropped.
struct DiskFailedError : ServiceError {
    using ServiceError::ServiceError;
};

/// The database is damaged: nothing is stored any more until it is restored.
struct DamagedError : ServiceError {
    using ServiceError::ServiceError;
};

/// An item would take the identity that an item of another share has.
struct ForeignIdentityError : ServiceError {
    using ServiceError::ServiceError;
};

/// Refusal of one HTTP request. The text goes to the peer as a short plain-text body: no secrets, no inner
/// paths.
struct HttpError : std::runtime_error {
    HttpError(unsigned httpStatus, const std::string& text) : std::runtime_error(text), status(httpStatus) {}
    unsigned status;
};

}  // namespace tarnwell::service
