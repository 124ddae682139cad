#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/UrlLoader.h"

namespace tarnwell::testing {

using RequestMatcher = std::function<bool(const UrlRequest&)>;

RequestMatcher urlContains(std::string text);
/// As a file-API request: method and a part of the URL, a part of the body when given.
RequestMatcher requestTo(std::string method, std::string urlPart, std::string bodyPart = {});
/// The header's value; none when absent. Names compare without regard to case.
std::optional<std::string> header(const UrlRequest& request, std::string_view name);

/// Answers requests as the test says, without a network.
///
///     loader.when(urlContains("login2.aspx")).reply(200, answer);
///     loader.when(urlContains("read.aspx")).times(1).fail("connection reset");   // once, then the older
///     rules auto catchUp = loader.when(urlContains("CatchUp7")).reply(200, page).hold();
///     ...
///     ASSERT_TRUE(catchUp.waitForHeld(1));
///     catchUp.release();
///
/// The newest rule that matches and is not used up answers. A request without a rule fails with "unexpected
/// request". Any thread. A synchronous request blocks while it is held, at most 30 seconds.
class ScriptedUrlLoader final : public UrlLoader {
    struct State;
    struct RuleState;

  public:
    /// A handle on one rule; copies share it and may outlive the loader.
    class Rule {
      public:
        Rule reply(int status, std::string body);
        /// Computes the reply; runs on the requesting (or releasing) thread with no lock held.
        Rule answer(std::function<UrlReply(const UrlRequest&)> answer);
        /// No reply came: status 0 and the transport error.
        Rule fail(std::string error);
        /// Answers this many requests, then older rules count again.
        Rule times(std::size_t count);
        /// Requests wait for release().
        Rule hold();

        /// Answers the requests that are held, as the rule now says, and lets later ones pass at once.
        void release();
        /// Answers the oldest held request only. False when none is held.
        bool releaseOne();
        /// Waits (real time) until `count` requests are held at once.
        bool waitForHeld(std::size_t count, std::chrono::milliseconds deadline = std::chrono::seconds(10));
        /// How many requests came to this rule.
        [[nodiscard]] std::size_t count() const;
        [[nodiscard]] std::size_t held() const;

      private:
        friend class ScriptedUrlLoader;
        Rule(std::shared_ptr<State> state, std::shared_ptr<RuleState> rule)
            : state_(std::move(state)), rule_(std::move(rule)) {}
        std::shared_ptr<State> state_;
        std::shared_ptr<RuleState> rule_;
    };

    ScriptedUrlLoader();
    ~ScriptedUrlLoader() override;

    /// A new rule, answering 200 with an empty body until told otherwise.
    Rule when(RequestMatcher matcher);

    /// Every request so far, in order of arrival.
    [[nodiscard]] std::vector<UrlRequest> requests() const;
    [[nodiscard]] std::vector<UrlRequest> requests(const RequestMatcher& matcher) const;

    UrlReply sendSynchronously(const UrlRequest& request) override;
    void sendAsynchronously(UrlRequest request, Executor& queue, Completion completion) override;
    void stop() override;

  private:
    std::shared_ptr<State> state_;
};

}  // namespace tarnwell::testing
