#pragma once

#include <vector>

#include "service/ContentStore.h"
#include "service/Http.h"
#include "service/LoginThrottle.h"
#include "service/MetadataStore.h"
#include "service/ServiceLog.h"
#include "service/Transfers.h"
#include "service/WebSessions.h"

/// What the service answers. Each function makes the rows of one concern for the router's table; the handlers
/// borrow the arguments, which must outlive them.
namespace tarnwell::service {

/// Who the user is, which domains and shares are there, and the tokens for them.
std::vector<Endpoint> loginEndpoints(MetadataStore& store, LoginThrottle& throttle, ServiceLog& log);
/// The changes of a share.
std::vector<Endpoint> catchUpEndpoints(MetadataStore& store);
/// Contents of files, and changes of the tree.
std::vector<Endpoint> contentEndpoints(MetadataStore& store, ContentStore& contents, Transfers& transfers);

/// Operations on items without contents, and the making of links.
std::vector<Endpoint> clientApiEndpoints(MetadataStore& store);

/// Pages: public links, and the user's shares after a log-in link.
std::vector<Endpoint> webClientEndpoints(MetadataStore& store, ContentStore& contents, WebSessions& sessions);

/// The right that a request's token proves, in the share asked for; HttpError 403 when it proves none.
AccessRight needRight(MetadataStore& store, std::string_view token);

}  // namespace tarnwell::service
