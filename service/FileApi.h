#pragma once

#include "service/Http.h"
#include "service/Transfers.h"

namespace tarnwell::service {

/// The writing side of the file API: journal events and the chunks of uploads. Any thread.
///
/// The right to write is proved by the token inside an event, and by the transfer's token for a chunk. What a
/// client can mend by beginning again is answered 200 with a code; HTTP errors are for what it cannot.
class FileApi {
  public:
    /// Borrows both.
    FileApi(MetadataStore& store, Transfers& transfers) : store_(store), transfers_(transfers) {}

    [[nodiscard]] Reply event(const Request& request) const;
    [[nodiscard]] Reply chunk(const Request& request) const;

  private:
    MetadataStore& store_;
    Transfers& transfers_;
};

/// The right of a share token to change the share in the request's domain; HttpError 403 without.
AccessRight needWriteRight(MetadataStore& store, const Request& request, std::string_view token);

}  // namespace tarnwell::service
