#include <atomic>
#include <filesystem>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "service/ChangeWorld.h"
#include "service/Names.h"
#include "service/ServingProcess.h"
#include "store/Enums.h"
#include "support/Seed.h"
#include "util/Hash.h"
#include "util/RecordMapping.h"

namespace tarnwell::service::testing {
namespace {

using Random = std::mt19937_64;
using namespace std::chrono_literals;

constexpr int kWorkers = 20;
constexpr int kBreakers = 4;  ///< of them, those that make and delete folders

/// Many devices on a process that is killed again and again. Each repeats what it asks for until it is
/// answered, as clients do; followers read all along. At the end everybody must agree.
class HostileServiceTest : public ChangeWorld {
  protected:
    void SetUp() override {
        for (int i = 0; i < kWorkers + 3; ++i) {
            const auto device = metadata().addDevice(anna_.id, "device", "");
            const auto token = metadata().accessOf(device, alpha_.id).front().token;
            devices_.push_back({token, docs_.id, device.id});
        }
        (void)data_->updateCertificates();
    }
    void serveOutside() {
        process_.emplace(folder_.path("data"));
        port_ = process_->port();
        ASSERT_NE(port_, 0);
    }

    /// One thread's connection to whatever process serves now.
    class Wire {
      public:
        explicit Wire(HostileServiceTest& world) : world_(world) { renew(); }
        ~Wire() { ownClient_ = nullptr; }
        /// After a failed request.
        void renew() {
            std::this_thread::sleep_for(10ms);
            client_ =
                std::make_unique<HttpsClient>(world_.data_->certificates().authority.string(), world_.port_);
            ownClient_ = client_.get();
        }

      private:
        HostileServiceTest& world_;
        std::unique_ptr<HttpsClient> client_;
    };

    template <class T>
    std::shared_ptr<T> answerTo(const HttpsReply& http) {
        std::string error;
        if (http.status == 200) return parseRecord<T>(std::string_view(http.body), error);
        // What may be answered besides: the connection is cut, or another device was faster.
        if (http.status != 0 && http.status != 503) ADD_FAILURE() << http.status << " " << http.body;
        return nullptr;
    }
    TWFileJournalResponse ask(Wire& wire, const Device& device, std::int32_t type,
                              const TWVirtualFile& record) {
        for (;;) {
            if (const auto reply = answerTo<TWFileJournalResponse>(eventReply(device, type, record)))
                return *reply;
            if (HasFailure()) return {};
            wire.renew();
        }
    }
    /// Until it is complete, from the announcement on where the transfer is void.
    void upload(Wire& wire, const Device& device, std::int32_t type, const TWVirtualFile& record,
                const std::string& bytes, Random& random) {
        while (!HasFailure()) {
            const auto begin = ask(wire, device, type, record);
            if (HasFailure()) return;
            ASSERT_TRUE(begin.TransmitToken) << begin.ResponseCode;
            for (std::size_t at = 0;;) {
                const auto http =
                    chunkReply(*begin.TransmitToken, static_cast<std::int64_t>(at), bytes.substr(at, 40'000));
                const auto reply = answerTo<TWFileChunkUploadResponse>(http);
                if (!reply) {
                    wire.renew();
                    if (random() % 4 == 0 || HasFailure()) break;
                    continue;
                }
                if (reply->ResponseCode == 2) {
                    ++acknowledged_;
                    return;
                }
                ASSERT_NE(reply->ResponseCode, 3);
                if (reply->ResponseCode == 1) break;
                at += 40'000;
                if (random() % 8 == 0) at = 0;
            }
        }
    }

    void work(int number, Random random) {
        Wire wire(*this);
        const auto& device = devices_[static_cast<std::size_t>(number)];
        std::map<std::string, TWVirtualFile> own;
        std::map<std::string, std::string> hashes;
        const auto any = [&] {
            return &std::next(own.begin(), static_cast<long>(random() % own.size()))->second;
        };
        for (int count = 0; !stop_ && !HasFailure(); ++count) {
            const auto what = own.empty() ? 0 : random() % 10;
            if (number < kBreakers) {
                // A folder that nobody else was told of by this device: what is in it stays.
                const auto folder = device.folder("folder " + std::to_string(random() % 9));
                EXPECT_NE(ask(wire, device, kJournalCreate, folder).ResponseCode, 10);
                shareFolder(folder.InternalName.str());
                std::this_thread::sleep_for(std::chrono::milliseconds(random() % 300));
                (void)ask(wire, device, kJournalDelete, folder);
                ++acknowledged_;
            } else if (what < 3) {
                const auto bytes = contents(number, count, random);
                auto record = device.file("file " + std::to_string(random() % 40), bytes);
                if (const auto folder = sharedFolder(random); random() % 2 && !folder.empty())
                    record.ParrentId = folder;
                upload(wire, device, kJournalCreate, record, bytes, random);
                hashes[record.InternalName.str()] = record.FilehHash.str();
                own[record.InternalName.str()] = record;
            } else if (what < 6) {
                auto& record = *any();
                const auto bytes = contents(number, count, random);
                record.LastUploadName = record.UploadName;
                const auto next = Device::edited(record, bytes);
                upload(wire, device, kJournalUpdate, next, bytes, random);
                record = next;
                hashes[record.InternalName.str()] = record.FilehHash.str();
            } else if (what < 9) {
                auto& record = *any();
                record.PublicName = "name " + std::to_string(random() % 40);
                if (const auto folder = sharedFolder(random); !folder.empty()) record.ParrentId = folder;
                (void)ask(wire, device, kJournalRename, record);
                ++acknowledged_;
            } else {
                const auto record = *any();
                const auto code = ask(wire, device, kJournalDelete, record).ResponseCode;
                EXPECT_TRUE(code == 1 || code == 9) << code;
                own.erase(record.InternalName.str());
                hashes.erase(record.InternalName.str());
                ++acknowledged_;
            }
        }
        const std::lock_guard lock(lock_);
        for (const auto& [id, hash] : hashes)
            promised_[id] = hash;
    }
    static std::string contents(int number, int count, Random& random) {
        std::string bytes = std::to_string(number) + ":" + std::to_string(count) + ":";
        bytes.resize(bytes.size() + random() % (random() % 4 ? 3'000 : 150'000),
                     static_cast<char>('a' + count % 26));
        return bytes;
    }
    void shareFolder(const std::string& id) {
        const std::lock_guard lock(lock_);
        folders_.push_back(id);
    }
    std::string sharedFolder(Random& random) {
        const std::lock_guard lock(lock_);
        if (folders_.empty()) return {};
        const auto recent = std::min<std::size_t>(folders_.size(), 8);
        return folders_[folders_.size() - 1 - random() % recent];
    }

    using Tree = std::map<std::string, TWVirtualFilePtr>;
    /// One page; whether it brought anything. None when it was not answered.
    std::optional<bool> readPage(const Device& device, int take, std::int32_t& tick, Tree& tree) {
        const auto page = answerTo<OSXCatchUpResponse>(catchUpOver(device, tick, take));
        if (!page) return std::nullopt;
        for (const auto& record : page->TwVirtualFiles) {
            EXPECT_GT(record->Tick, tick);
            if (record->Deleted)
                tree.erase(record->InternalName.str());
            else
                tree[record->InternalName.str()] = record;
        }
        tick = page->LargestTick;
        EXPECT_GE(page->ShareTick, tick);
        return !page->TwVirtualFiles.empty();
    }
    HttpsReply catchUpOver(const Device& device, std::int32_t tick, int take) {
        return wire().post("clientgateway.alpha.localhost", "/CatchUp7.aspx",
                           {"share: " + docs_.id, "token: " + device.token,
                            "tickfrom: " + std::to_string(tick), "ticktake: " + std::to_string(take)},
                           "");
    }
    void follow(const Device& device, int take, Tree& tree) {
        Wire wire(*this);
        std::int32_t tick = -1;
        for (bool last = false;;) {
            const auto more = readPage(device, take, tick, tree);
            if (!more) {
                if (HasFailure()) return;
                wire.renew();
            } else if (!*more) {
                if (last || HasFailure()) return;
                last = settled_;
                std::this_thread::sleep_for(5ms);
            }
        }
    }
    static std::string picture(const Tree& tree) {
        std::string text;
        for (const auto& [id, item] : tree)
            text += id + ": " + item->ParrentId.str() + "/" + item->PublicName.str() + "=" +
                    item->FilehHash.str() + " " + std::to_string(item->Tick) + "\n";
        return text;
    }

    std::vector<Device> devices_;
    std::optional<ServingProcess> process_;
    std::atomic<std::uint16_t> port_ = 0;
    std::atomic<bool> stop_ = false;
    std::atomic<bool> settled_ = false;
    std::atomic<int> acknowledged_ = 0;

    std::mutex lock_;
    std::vector<std::string> folders_;
    std::map<std::string, std::string> promised_;  ///< hash of each file's last contents
};

TEST_F(HostileServiceTest, killsLoseNothingAndFollowersAgree) {
    const auto seed = tarnwell::testing::seed();
    SCOPED_TRACE(tarnwell::testing::replayWith(seed));
    Random random(seed);
    const std::chrono::seconds seconds(tarnwell::testing::rounds(6));
    serveOutside();
    std::vector<std::thread> workers;
    for (int i = 0; i < kWorkers; ++i)
        workers.emplace_back([this, i, own = Random(random())] { work(i, own); });
    const int takes[] = {7, 50, 10'000};
    Tree trees[3];
    std::vector<std::thread> followers;
    for (int i = 0; i < 3; ++i)
        followers.emplace_back([this, i, &takes, &trees] {
            follow(devices_[static_cast<std::size_t>(kWorkers + i)], takes[i], trees[i]);
        });

    int kills = 0;
    for (const auto end = std::chrono::steady_clock::now() + seconds;
         std::chrono::steady_clock::now() < end && !HasFailure(); ++kills) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200 + random() % 1500));
        process_->kill();
        process_->wait();
        serveOutside();
    }
    stop_ = true;
    for (auto& worker : workers)
        worker.join();
    process_->stop(SIGKILL);
    serveOutside();
    settled_ = true;
    for (auto& follower : followers)
        follower.join();

    Wire wire(*this);
    Tree tree;
    std::int32_t tick = -1;
    while (readPage(devices_.back(), 10'000, tick, tree).value_or(false)) {
    }
    for (const auto& followed : trees)
        EXPECT_EQ(picture(followed), picture(tree));
    int hashed = 0;
    for (const auto& [id, item] : tree) {
        EXPECT_TRUE(item->ParrentId == docs_.id || tree.contains(item->ParrentId.str())) << id;
        if (item->size() == 0) continue;
        const auto bytes =
            this->wire().get("filecache01.alpha.localhost", "/read.aspx",
                             {"Token: " + devices_.back().token, "fileName: " + item->UploadName.str(),
                              "position: 0", "chunk: 10000000"});
        EXPECT_EQ(hashText(bytes.body), item->FilehHash.view()) << id << " " << bytes.status;
        ++hashed;
    }
    for (const auto& [id, hash] : promised_) {
        ASSERT_TRUE(tree.contains(id)) << id;
        EXPECT_EQ(tree.at(id)->FilehHash.view(), hash) << id;
    }
    EXPECT_GT(acknowledged_, 20);
    std::cout << kills << " kills, " << acknowledged_ << " acknowledged changes, " << hashed
              << " contents hashed, tick " << tick << "\n";
}

}  // namespace
}  // namespace tarnwell::service::testing
