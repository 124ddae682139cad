#include "support/ScriptedUrlLoader.h"

#include <strings.h>

#include <algorithm>
#include <deque>
#include <future>

namespace tarnwell::testing {

namespace {

using Answer = std::function<UrlReply(const UrlRequest&)>;

/// One request that a rule holds; exactly one of release and stop answers it.
struct Held {
    UrlRequest request;
    std::function<void(UrlReply)> finish;  // called with no lock held
};

UrlReply failure(std::string error) {
    return {.status = 0, .error = std::move(error), .body = {}};
}

}  // namespace

struct ScriptedUrlLoader::RuleState {
    RequestMatcher matcher;
    Answer answer = [](const UrlRequest&) { return UrlReply{.status = 200, .error = {}, .body = {}}; };
    std::size_t count = 0;
    std::size_t limit = SIZE_MAX;
    bool holding = false;
    std::deque<Held> held;
};

struct ScriptedUrlLoader::State {
    mutable std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::shared_ptr<RuleState>> rules;
    std::vector<UrlRequest> requests;
    bool stopped = false;

    /// Answers through `finish`, now or when the rule lets go.
    void handle(const UrlRequest& request, std::function<void(UrlReply)> finish) {
        Answer answer;
        {
            std::lock_guard lock(mutex);
            requests.push_back(request);
            changed.notify_all();
            if (stopped) {
                answer = [](const UrlRequest&) { return failure("cancelled"); };
            } else if (const auto rule = find(request); !rule) {
                answer = [](const UrlRequest&) { return failure("unexpected request"); };
            } else {
                ++rule->count;
                if (rule->holding) {
                    rule->held.push_back({request, std::move(finish)});
                    return;
                }
                answer = rule->answer;
            }
        }
        finish(answer(request));
    }

    std::shared_ptr<RuleState> find(const UrlRequest& request) const {
        const auto rule = std::find_if(rules.rbegin(), rules.rend(), [&](const auto& candidate) {
            return candidate->count < candidate->limit && candidate->matcher(request);
        });
        return rule == rules.rend() ? nullptr : *rule;
    }
};

RequestMatcher urlContains(std::string text) {
    return [text = std::move(text)](const UrlRequest& request) {
        return request.url.find(text) != std::string::npos;
    };
}

RequestMatcher requestTo(std::string method, std::string urlPart, std::string bodyPart) {
    return [=](const UrlRequest& request) {
        return request.method == method && request.url.find(urlPart) != std::string::npos &&
               request.body.find(bodyPart) != std::string::npos;
    };
}

std::optional<std::string> header(const UrlRequest& request, std::string_view name) {
    for (const auto& [key, value] : request.headers) {
        if (key.size() == name.size() && ::strncasecmp(key.data(), name.data(), name.size()) == 0)
            return value;
    }
    return std::nullopt;
}

ScriptedUrlLoader::ScriptedUrlLoader() : state_(std::make_shared<State>()) {}

ScriptedUrlLoader::~ScriptedUrlLoader() {
    stop();
}

ScriptedUrlLoader::Rule ScriptedUrlLoader::when(RequestMatcher matcher) {
    auto rule = std::make_shared<RuleState>();
    rule->matcher = std::move(matcher);
    std::lock_guard lock(state_->mutex);
    state_->rules.push_back(rule);
    return {state_, rule};
}

std::vector<UrlRequest> ScriptedUrlLoader::requests() const {
    std::lock_guard lock(state_->mutex);
    return state_->requests;
}

std::vector<UrlRequest> ScriptedUrlLoader::requests(const RequestMatcher& matcher) const {
    auto found = requests();
    std::erase_if(found, [&](const UrlRequest& request) { return !matcher(request); });
    return found;
}

UrlReply ScriptedUrlLoader::sendSynchronously(const UrlRequest& request) {
    const auto answered = std::make_shared<std::promise<UrlReply>>();
    auto reply = answered->get_future();
    state_->handle(request, [answered](UrlReply answer) { answered->set_value(std::move(answer)); });
    if (reply.wait_for(std::chrono::seconds(30)) != std::future_status::ready)
        return failure("held for too long");
    return reply.get();
}

void ScriptedUrlLoader::sendAsynchronously(UrlRequest request, Executor& queue, Completion completion) {
    state_->handle(request, [&queue, completion = std::move(completion)](UrlReply reply) {
        queue.async([completion, reply = std::move(reply)]() mutable { completion(std::move(reply)); });
    });
}

void ScriptedUrlLoader::stop() {
    std::vector<Held> held;
    {
        std::lock_guard lock(state_->mutex);
        state_->stopped = true;
        for (const auto& rule : state_->rules) {
            for (auto& request : rule->held)
                held.push_back(std::move(request));
            rule->held.clear();
        }
    }
    for (auto& request : held)
        request.finish(failure("cancelled"));
}

ScriptedUrlLoader::Rule ScriptedUrlLoader::Rule::reply(int status, std::string body) {
    return answer([=](const UrlRequest&) { return UrlReply{.status = status, .error = {}, .body = body}; });
}

ScriptedUrlLoader::Rule ScriptedUrlLoader::Rule::fail(std::string error) {
    return answer([error = std::move(error)](const UrlRequest&) { return failure(error); });
}

ScriptedUrlLoader::Rule ScriptedUrlLoader::Rule::answer(Answer answer) {
    std::lock_guard lock(state_->mutex);
    rule_->answer = std::move(answer);
    return *this;
}

ScriptedUrlLoader::Rule ScriptedUrlLoader::Rule::times(std::size_t count) {
    std::lock_guard lock(state_->mutex);
    rule_->limit = count;
    return *this;
}

ScriptedUrlLoader::Rule ScriptedUrlLoader::Rule::hold() {
    std::lock_guard lock(state_->mutex);
    rule_->holding = true;
    return *this;
}

void ScriptedUrlLoader::Rule::release() {
    {
        std::lock_guard lock(state_->mutex);
        rule_->holding = false;
    }
    while (releaseOne()) {
    }
}

bool ScriptedUrlLoader::Rule::releaseOne() {
    Held next;
    Answer answer;
    {
        std::lock_guard lock(state_->mutex);
        if (rule_->held.empty()) return false;
        next = std::move(rule_->held.front());
        rule_->held.pop_front();
        answer = rule_->answer;
    }
    next.finish(answer(next.request));
    return true;
}

bool ScriptedUrlLoader::Rule::waitForHeld(std::size_t count, std::chrono::milliseconds deadline) {
    std::unique_lock lock(state_->mutex);
    return state_->changed.wait_for(lock, deadline, [&] { return rule_->held.size() >= count; });
}

std::size_t ScriptedUrlLoader::Rule::count() const {
    std::lock_guard lock(state_->mutex);
    return rule_->count;
}

std::size_t ScriptedUrlLoader::Rule::held() const {
    std::lock_guard lock(state_->mutex);
    return rule_->held.size();
}

}  // namespace tarnwell::testing
