// Two clients of one share, each action of theirs and each step of each request in any order.

#include <gtest/gtest.h>

#include <cstdio>
#include <random>

#include "connector/SharedWorld.h"
#include "store/StorePersistence.h"
#include "support/LogCapture.h"
#include "support/Seed.h"
#include "util/TWLogger.h"

namespace tarnwell::testing {
namespace {

using namespace std::chrono_literals;

/// Who closed which bytes, and which of them somebody overwrote or deleted who had seen them.
struct Versions {
    std::set<std::string> closed, gone;
};

class TwoClients {
  public:
    explicit TwoClients(std::uint32_t seed) : random_(seed) {
        for (int i = 0; i < 2; ++i) {
            shares_.push_back(service_.shareOfNewDevice());
            start(i, true);
        }
        // Both know these.
        for (const std::string name : {"a", "b"}) {
            clients_[0]->save(clients_[0]->create(name), name);
            versions_.closed.insert(name);
        }
        finish();
    }

    void step() {
        const int i = pick(2);
        auto& client = *clients_[i];
        switch (pick(20)) {
            case 0:
            case 1:
            case 2:
            case 3:
            case 4:
                act(i);
                break;
            case 5:
                client.background.runOne();
                break;
            case 6:
                client.settle();
                break;
            case 7:
                note(i, "checks");
                client.connector->replay().checkJournal();
                break;
            case 8:
                note(i, "refreshes");
                client.connector->catchUps().refresh();
                break;
            case 9:
                if (pick(8) == 0) restart(i);
                break;
            case 10:
            case 11:
                advance(pick(3) == 0 ? 31s : 6s);
                break;
            case 12:
                if (pick(2) == 0) break;
                note(i, "is well connected");
                client.connector->replay().checkJournal();
                client.connector->catchUps().refresh();
                answerAll(client, 3 + pick(10));
                break;
            default:
                exchange(i);
        }
    }

    /// Everything is sent, and nothing is new anywhere.
    void finish() {
        for (const auto& client : clients_)
            client->endEdits();
        int quiet = 0;
        for (int round = 0; round < 100 && quiet < 2; ++round) {
            quiet += 1;
            for (const auto& client : clients_) {
                if (!client->journalText().empty()) quiet = 0;
                client->settle();
                client->connector->replay().checkJournal();
                client->connector->catchUps().refresh();
                answerAll(*client, 200);
            }
            advance(31s);
        }
    }

    void check() {
        const auto tree = service_.tree();
        std::set<std::string> contents;
        for (const auto& line : tree)
            contents.insert(line.substr(line.find('=') + 1));
        for (const auto& bytes : versions_.closed) {
            EXPECT_TRUE(versions_.gone.contains(bytes) || contents.contains(bytes)) << bytes << " is lost";
        }
        for (const auto& client : clients_) {
            EXPECT_EQ(client->journalText(), "");
            EXPECT_EQ(client->tree(), tree) << "of " << (client == clients_[0] ? "A" : "B");
        }
    }

  private:
    static void answerAll(SharedClient& client, int most) {
        for (int left = most; left > 0; --left) {
            client.settle();
            if (client.wire.underway() == 0) break;
            client.wire.deliver(0);
            client.wire.finish(0, false);
        }
    }

    int pick(std::size_t count) { return static_cast<int>(random_() % count); }
    void note(int i, const std::string& what) { TWLogText(kLogMain, std::string(1, "AB"[i]) + " " + what); }

    void start(int i, bool isFirst) {
        if (clients_.size() <= static_cast<std::size_t>(i)) clients_.emplace_back();
        clients_[i] = std::make_unique<SharedClient>(service_, folder_.path(std::string(1, "ab"[i])),
                                                     shares_[i], clock_, isFirst);
    }

    void restart(int i) {
        const bool saved = pick(2) == 0;
        note(i, saved ? "saves and restarts" : "is killed");
        if (saved) (void)clients_[i]->store->persistence().save();
        clients_[i].reset();
        start(i, false);
    }

    void advance(std::chrono::milliseconds time) {
        clock_.advance(time);
        for (const auto& client : clients_)
            client->pass(time);
    }

    void exchange(int i) {
        auto& wire = clients_[i]->wire;
        if (wire.underway() == 0) return;
        const int call = pick(wire.underway());
        switch (pick(12)) {
            case 0:
                note(i, "loses a request or an answer");
                wire.finish(call, true);
                break;
            case 1:
            case 2:
            case 3:
                note(i, "is heard");
                wire.deliver(call);
                break;
            default:
                note(i, "is heard and answered");
                wire.deliver(call);
                wire.finish(call, false);
                if (pick(2)) clients_[i]->settle();
        }
    }

    void closed(const std::optional<std::string>& seen, const std::string& bytes) {
        if (seen) versions_.gone.insert(*seen);
        versions_.closed.insert(bytes);
    }

    void act(int i) {
        auto& client = *clients_[i];
        static const std::vector<std::string> kNames = {"a", "a", "a", "b", "b", "a.bak"};
        const std::string name = kNames[pick(kNames.size())];
        const auto files = client.files();
        auto file = client.item(name);
        const bool busy = file && file->LocallyUpdated.value_or(false);
        const std::string bytes =
            std::string(1, "AB"[i]) + std::to_string(++count_) + std::string(pick(5), '.');
        if (!file) {
            note(i, "creates " + name + " with " + bytes);
            file = client.create(name);
            client.save(file, bytes);
            versions_.closed.insert(bytes);
            return;
        }
        const auto seen = client.see(file);
        if (!seen) return;
        switch (pick(16)) {
            default:
                if (busy) break;
                note(i, "saves " + name + " with " + bytes + " over " + *seen);
                client.save(file, bytes);
                closed(seen, bytes);
                break;
            case 3:
                note(i, "begins " + name + " with " + bytes + " over " + *seen);
                client.beginEdit(file, bytes);
                closed(seen, bytes);
                break;
            case 4:
                note(i, "ends its edits");
                client.endEdits();
                break;
            case 5:
                note(i, "deletes " + name + " with " + *seen);
                client.remove(file);
                versions_.gone.insert(*seen);
                break;
            case 6: {
                if (busy) break;
                const std::string to = kNames[pick(kNames.size())];
                const auto there = client.item(to);
                if (there && there->LocallyUpdated.value_or(false)) break;
                const auto covered = there && there != file ? client.see(there) : std::nullopt;
                if (there && there != file && !covered) break;
                note(i, "moves " + name + " to " + to + (covered ? " over " + *covered : ""));
                client.rename(file, to);
                if (covered) versions_.gone.insert(*covered);
                break;
            }
            case 7: {
                if (busy || client.item("a.bak") == file) break;
                const auto there = client.item("a.bak");
                const auto covered = there ? client.see(there) : std::nullopt;
                if (there && (!covered || there->LocallyUpdated.value_or(false))) break;
                note(i, "keeps " + name + " as a.bak and saves " + bytes);
                if (covered) versions_.gone.insert(*covered);
                // One that was hidden behind it may show now.
                if (!client.rename(file, "a.bak") || client.item(name)) break;
                client.save(client.create(name), bytes);
                versions_.closed.insert(bytes);
            }
        }
    }

    std::mt19937 random_;
    TemporaryFolder folder_;
    FakeClock clock_;
    InProcessService service_;
    std::vector<ManagedSharePtr> shares_;
    std::vector<std::unique_ptr<SharedClient>> clients_;
    Versions versions_;
    int count_ = 0;
};

TEST(TwoClientsTest, everyClosedVersionIsThereOrWasSeenByWhoeverTookIt) {
    const unsigned first = testing::seed();
    const int count = testing::rounds(12);
    for (int round = 0; round < count && !::testing::Test::HasFailure(); ++round) {
        const unsigned seed = first + static_cast<unsigned>(round);
        SCOPED_TRACE(testing::replayWith(seed));
        const LogCapture log;
        TwoClients world(seed);
        for (int step = 0; step < 250; ++step)
            world.step();
        world.finish();
        world.check();
        if (::testing::Test::HasFailure()) std::fputs(log.text().c_str(), stderr);
    }
}

}  // namespace
}  // namespace tarnwell::testing
