#pragma once

#include <string>
#include <string_view>

namespace tarnwell::service {

/// The gzip form of `bytes`, made for speed. Throws ServiceError when memory runs out.
std::string gzip(std::string_view bytes);

/// Whether an Accept-Encoding header takes gzip: it is named, or "*" is, and not with a quality of 0.
bool acceptsGzip(std::string_view acceptEncoding);

}  // namespace tarnwell::service
