#pragma once

#include <memory>
#include <string>
#include <string_view>

struct evp_md_ctx_st;

namespace tarnwell {

/// An MD5 in progress: the hash of contents on the wire, a check against damage and no protection.
/// One thread at a time.
class Md5 {
  public:
    Md5();
    void update(std::string_view bytes);
    /// The hash of what came so far, which ends it: sixteen pairs of upper-case hex digits joined by "-".
    /// REQUIRES: called once.
    [[nodiscard]] std::string hashText();

  private:
    struct Free {
        void operator()(evp_md_ctx_st* context) const;
    };
    std::unique_ptr<evp_md_ctx_st, Free> context_;
};

/// The hash text of `bytes`.
std::string hashText(std::string_view bytes);

}  // namespace tarnwell
