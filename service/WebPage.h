#pragma once

#include <string>
#include <string_view>

#include "service/Http.h"

/// What browsers get: pages and downloads. A page has no scripts and nothing from elsewhere, and says so in
/// its headers; names come in as plain text and are escaped here. Any thread.
namespace tarnwell::service {

/// Text for a page, also inside a quoted attribute.
std::string htmlText(std::string_view text);
/// Text for a value of a query: all but letters, digits, "-", "_" and "." percent-encoded.
std::string queryText(std::string_view text);
std::string sizeText(std::int64_t bytes);
std::string dateText(Date date);

/// `body` is markup, `title` plain text.
Reply webPage(unsigned status, std::string_view title, const std::string& body);

/// By the extension of the name; "application/octet-stream" when it says nothing.
std::string_view contentTypeOf(std::string_view name);

/// The bytes as a file to be kept under `name`, whole or the range that the request asks for. `reader` is
/// null for a file without bytes; `version` is different for other contents.
Reply download(const Request& request, std::string_view name, std::shared_ptr<ContentReader> reader,
               std::string_view version);

}  // namespace tarnwell::service
