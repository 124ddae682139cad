#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>
#include <vector>

#include "service/ChangeWorld.h"
#include "service/Names.h"
#include "service/Secrets.h"
#include "service/ServingProcess.h"
#include "service/ShareTree.h"
#include "store/Enums.h"
#include "util/Hash.h"
#include "util/TWUtils.h"

namespace tarnwell::service::testing {
namespace {

using ChangeTest = ChangeWorld;

std::string noise(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(i * 2654435761u >> 13);
    return bytes;
}

TEST_F(ChangeTest, whatIsRepeatedIsDoneOnce) {
    auto file = one_.file("a.txt", "bytes");
    const auto first = event(one_, kJournalCreate, file);
    EXPECT_EQ(send(one_, kJournalCreate, file, "bytes"), "1:2") << "the first answer was lost";
    EXPECT_EQ(chunk(*first.TransmitToken, 0, "bytes"), 2) << "and came late after all";
    EXPECT_EQ(chunk(*first.TransmitToken, 0, "bytes"), 2) << "a last chunk again";
    file.PublicName = "b.txt";
    EXPECT_EQ(send(one_, kJournalCreate, file, "bytes"), "1:2") << "renamed before the repetition";
    file = Device::edited(file, "edited before the repetition");
    EXPECT_EQ(send(one_, kJournalCreate, file, "edited before the repetition"), "1:2");
    const auto folder = one_.folder("folder");
    EXPECT_EQ(send(one_, kJournalCreate, folder, ""), "1");
    EXPECT_EQ(send(one_, kJournalCreate, folder, ""), "1");
    EXPECT_EQ(tree(), "b.txt=edited before the repetition\nfolder/");

    // The same upload name with other bytes: whoever reads the former ones by it must not get a mixture.
    auto reused = Device::edited(file, "other bytes");
    const auto former = file.UploadName;
    reused.UploadName = former;
    EXPECT_EQ(send(one_, kJournalUpdate, reused, "other bytes"), "1:2");
    EXPECT_EQ(tree(), "b.txt=other bytes\nfolder/");
    EXPECT_EQ(readReply("alpha.localhost", one_.token, former.str(), "0", "99").body,
              "edited before the repetition");
    EXPECT_EQ(send(one_, kJournalDelete, folder, ""), "1");
    EXPECT_EQ(send(one_, kJournalDelete, folder, ""), "9");
}

TEST_F(ChangeTest, namesThatAreTakenBecomeFreeOnes) {
    ASSERT_EQ(send(one_, kJournalCreate, one_.file("Caf\xC3\xA9.txt", "one"), "one"), "1:2");
    ASSERT_EQ(send(one_, kJournalCreate, one_.folder("Pictures"), ""), "1");
    const auto second = two_.file("cafe\xCC\x81.TXT", "two");
    const auto reply = event(two_, kJournalCreate, second);
    EXPECT_EQ(reply.ResponseCode, 3);
    EXPECT_EQ(reply.TwVirtualFile->PublicName, "cafe\xCC\x81 (2).TXT");
    // Somebody takes the name that was promised while the bytes are on their way.
    ASSERT_EQ(send(one_, kJournalCreate, one_.file("cafe\xCC\x81 (2).TXT", "x"), "x"), "1:2");
    EXPECT_EQ(chunk(*reply.TransmitToken, 0, "two"), 2);
    EXPECT_EQ(send(two_, kJournalCreate, two_.folder("pictures"), ""), "3");
    EXPECT_EQ(send(two_, kJournalCreate, two_.file("new\nline", ""), ""), "3");
    auto moved = second;
    moved.PublicName = "PICTURES";
    EXPECT_EQ(send(two_, kJournalRename, moved, ""), "3");
    EXPECT_EQ(tree(),
              "Caf\xC3\xA9.txt=one\nPICTURES (3)=two\nPictures/\ncafe\xCC\x81 (2).TXT=x\nnew_line=\n"
              "pictures (2)/");
}

TEST_F(ChangeTest, bothOfTwoDevicesWhoEditTheSameKeepTheirBytes) {
    auto file = one_.file("plan.txt", "base");
    ASSERT_EQ(send(one_, kJournalCreate, file, "base"), "1:2");
    const auto seen = *known(file.InternalName.view());
    ASSERT_EQ(send(two_, kJournalUpdate, Device::edited(seen, "two's"), "two's"), "1:2");
    const auto winner = known(file.InternalName.view())->Tick;

    // `one` knows its own version only, by whatever tick.
    const auto mine = Device::edited(file, "one's");
    const auto reply = event(one_, kJournalUpdate, mine);
    EXPECT_EQ(reply.ResponseCode, 3);
    const std::string today =
        JSONObjectFromNSDate(std::chrono::floor<TickDuration>(std::chrono::system_clock::now()))
            .substr(0, 10);
    EXPECT_EQ(reply.TwVirtualFile->PublicName, "plan (conflict " + today + ").txt");
    EXPECT_EQ(chunk(*reply.TransmitToken, 0, "one's"), 2);
    EXPECT_EQ(send(one_, kJournalUpdate, mine, "one's"), "3:2") << "repeated: no second copy";
    const std::string both = "plan (conflict " + today + ").txt=one's\nplan.txt=two's";
    EXPECT_EQ(tree(), both);
    EXPECT_GT(known(file.InternalName.view())->Tick, winner) << "the loser has to hear of the winner";

    // Overtaken between the announcement and the last chunk.
    const auto latest = *known(file.InternalName.view());
    const auto late = event(one_, kJournalUpdate, Device::edited(latest, "late"));
    EXPECT_EQ(late.ResponseCode, 1);
    ASSERT_EQ(send(two_, kJournalUpdate, Device::edited(latest, "fast"), "fast"), "1:2");
    EXPECT_EQ(chunk(*late.TransmitToken, 0, "late"), 2);
    EXPECT_EQ(tree(), "plan (conflict " + today + ") (2).txt=late\nplan (conflict " + today +
                          ").txt=one's\nplan.txt=fast");

    // The same bytes on both sides are no conflict, and a deletion does not take what was not seen.
    EXPECT_EQ(send(one_, kJournalUpdate, Device::edited(latest, "fast"), "fast"), "1:2");
    EXPECT_EQ(send(two_, kJournalDelete, seen, ""), "9");
    EXPECT_EQ(send(two_, kJournalDelete, *known(file.InternalName.view()), ""), "1");
}

TEST_F(ChangeTest, aConflictCopyThatItsDeviceEditsUnderTwoIdentitiesKeepsBoth) {
    auto file = one_.file("plan", "base");
    ASSERT_EQ(send(one_, kJournalCreate, file, "base"), "1:2");
    const auto seen = *known(file.InternalName.view());
    ASSERT_EQ(send(two_, kJournalUpdate, Device::edited(seen, "two's"), "two's"), "1:2");
    auto mine = Device::edited(file, "one's");
    const auto reply = event(one_, kJournalUpdate, mine);
    ASSERT_EQ(chunk(*reply.TransmitToken, 0, "one's"), 2);
    const auto copy = *known(reply.TwVirtualFile->InternalName.view());

    // It goes on under the original's identity, and, having heard of the copy, under the copy's.
    mine.LastUploadName = mine.UploadName;
    EXPECT_EQ(send(one_, kJournalUpdate, Device::edited(mine, "second"), "second"), "3:2");
    auto heard = Device::edited(copy, "third");
    heard.LastUploadName = copy.UploadName;
    EXPECT_EQ(send(one_, kJournalUpdate, heard, "third"), "3:2");
    EXPECT_NE(tree().find("=second"), std::string::npos) << tree();
    EXPECT_NE(tree().find("=third"), std::string::npos) << tree();
}

TEST_F(ChangeTest, anEditOfABygoneRecordKeepsTheRenameOfAnother) {
    auto file = one_.file("old name", "base");
    ASSERT_EQ(send(one_, kJournalCreate, file, "base"), "1:2");
    const auto folder = two_.folder("folder");
    ASSERT_EQ(send(two_, kJournalCreate, folder, ""), "1");
    const auto seen = *known(file.InternalName.view());
    auto renamed = seen;
    renamed.PublicName = "new name";
    renamed.ParrentId = folder.InternalName;
    ASSERT_EQ(send(two_, kJournalRename, renamed, ""), "1");
    EXPECT_EQ(send(one_, kJournalUpdate, Device::edited(seen, "edited"), "edited"), "3:2");
    EXPECT_EQ(tree(), "folder/\nfolder/new name=edited");
}

TEST_F(ChangeTest, whatIsPutIntoOrWrittenToADeletedItemBringsItBack) {
    const auto outer = one_.folder("outer");
    const auto inner = one_.folder("inner", outer.InternalName.str());
    auto file = one_.file("file", "base");
    file.ParrentId = inner.InternalName;
    ASSERT_EQ(send(one_, kJournalCreate, outer, ""), "1");
    ASSERT_EQ(send(one_, kJournalCreate, inner, ""), "1");
    ASSERT_EQ(send(one_, kJournalCreate, file, "base"), "1:2");
    const auto seen = *known(file.InternalName.view());
    EXPECT_EQ(send(two_, kJournalDelete, outer, ""), "9") << "two does not know of the file";
    EXPECT_EQ(tree(), "outer/\nouter/inner/\nouter/inner/file=base");
    ASSERT_EQ(send(two_, kJournalDelete, *known(outer.InternalName.view()), ""), "1");
    ASSERT_EQ(send(two_, kJournalCreate, two_.folder("outer"), ""), "1");
    EXPECT_EQ(tree(), "outer/");

    EXPECT_EQ(send(one_, kJournalRename, seen, ""), "10");
    EXPECT_EQ(send(one_, kJournalUpdate, Device::edited(seen, "precious"), "precious"), "1:2");
    EXPECT_EQ(tree(), "outer (2)/\nouter (2)/inner/\nouter (2)/inner/file=precious\nouter/");
    auto lost = one_.file("lost", "x");
    lost.ParrentId = newInternalName();
    EXPECT_EQ(send(one_, kJournalCreate, lost, "x"), "10");
    EXPECT_EQ(send(one_, kJournalUpdate, one_.file("unknown", "x"), "x"), "10");

    auto looped = *known(outer.InternalName.view());
    looped.ParrentId = inner.InternalName;
    EXPECT_EQ(send(one_, kJournalRename, looped, ""), "2");
    EXPECT_GT(known(outer.InternalName.view())->Tick, looped.Tick);
}

TEST_F(ChangeTest, aDeletedFolderSparesWhatOthersPutThere) {
    const auto folder = one_.folder("folder");
    ASSERT_EQ(send(one_, kJournalCreate, folder, ""), "1");
    auto own = one_.file("own", "own");
    own.ParrentId = folder.InternalName;
    ASSERT_EQ(send(one_, kJournalCreate, own, "own"), "1:2");
    auto old = one_.file("old", "old");
    ASSERT_EQ(send(one_, kJournalCreate, old, "old"), "1:2");
    auto inner = one_.folder("inner");
    ASSERT_EQ(send(one_, kJournalCreate, inner, ""), "1");
    const auto seen = *known(folder.InternalName.view());
    for (auto* moved : {&old, &inner}) {
        moved->ParrentId = folder.InternalName;
        ASSERT_EQ(send(two_, kJournalRename, *moved, ""), "1");
    }
    const auto tick = known(inner.InternalName.view())->Tick;
    EXPECT_EQ(send(one_, kJournalDelete, seen, ""), "9") << "as `one` sees it, the folder is empty";
    EXPECT_EQ(tree(), "folder/\nfolder/inner/\nfolder/old=old\nfolder/own=own");
    for (const auto& spared : {folder, old, inner})
        EXPECT_GT(known(spared.InternalName.view())->Tick, tick) << "`one` has taken it away already";
    EXPECT_EQ(send(one_, kJournalDelete, *known(folder.InternalName.view()), ""), "1");
}

TEST_F(ChangeTest, aRepeatedUploadThatWasReplacedMakesNoCopy) {
    auto file = one_.file("file", "first");
    ASSERT_EQ(send(one_, kJournalCreate, file, "first"), "1:2");
    const auto seen = *known(file.InternalName.view());
    ASSERT_EQ(send(two_, kJournalUpdate, Device::edited(seen, "second"), "second"), "1:2");
    const auto tick = known(file.InternalName.view())->Tick;
    EXPECT_EQ(send(one_, kJournalCreate, file, "first"), "1:2") << "the answer was lost";
    EXPECT_EQ(tree(), "file=second");
    EXPECT_GT(known(file.InternalName.view())->Tick, tick);
    const auto empty = one_.file("empty", "");
    ASSERT_EQ(send(one_, kJournalCreate, empty, ""), "1");
    const auto first = known(empty.InternalName.view())->Tick;
    EXPECT_EQ(send(one_, kJournalCreate, empty, ""), "1");
    EXPECT_EQ(known(empty.InternalName.view())->Tick, first);
}

TEST_F(ChangeTest, devicesThatWriteAtOnceLoseNothing) {
    const auto shared = one_.file("shared", "base");
    ASSERT_EQ(send(one_, kJournalCreate, shared, "base"), "1:2");
    const auto seen = *known(shared.InternalName.view());
    const auto work = [&](const Device& device, const std::string& mark) {
        HttpsClient client(data_->certificates().authority.string(), service_->port());
        ownClient_ = &client;
        for (int i = 0; i < 10; ++i) {
            const std::string contents = mark + std::to_string(i);
            const auto codes =
                send(device, kJournalCreate, device.file("same " + std::to_string(i), contents), contents);
            EXPECT_TRUE(codes == "1:2" || codes == "3:2") << codes;
        }
        const auto codes = send(device, kJournalUpdate, Device::edited(seen, mark), mark);
        EXPECT_TRUE(codes == "1:2" || codes == "3:2") << codes;
        ownClient_ = nullptr;
    };
    std::vector<std::thread> threads;
    threads.emplace_back(work, std::cref(one_), "a");
    threads.emplace_back(work, std::cref(two_), "b");
    const Device three = device();
    threads.emplace_back(work, std::cref(three), "c");
    for (auto& thread : threads)
        thread.join();
    const std::string all = "\n" + tree() + "\n";
    for (const std::string mark : {"a", "b", "c"}) {
        EXPECT_NE(all.find("=" + mark + "\n"), std::string::npos) << all;
        for (int i = 0; i < 10; ++i)
            EXPECT_NE(all.find("=" + mark + std::to_string(i) + "\n"), std::string::npos) << all;
    }
    EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 1 + 30 + 3);
}

TEST_F(ChangeTest, chunksAreTakenInOrderAndWhole) {
    const std::string bytes = noise(3000);
    const auto part = [&](std::size_t from) { return bytes.substr(from, 1000); };
    const auto token = *event(one_, kJournalCreate, one_.file("file", bytes)).TransmitToken;
    const auto code = [&](std::int64_t position, const std::string& data, const std::string& hash = "",
                          std::int64_t size = -1) {
        const auto reply = chunkReply(token, position, data, hash, size).body;
        const std::string_view key = "\"ResponseCode\":";
        return reply.substr(reply.find(key) + key.size(), 1);
    };
    EXPECT_EQ(code(1000, part(1000)), "1") << "a gap";
    EXPECT_EQ(code(0, part(0)), "0");
    EXPECT_EQ(code(0, part(0), hashText("x")), "1");
    EXPECT_EQ(code(1000, part(1000), "", 999), "1");
    EXPECT_EQ(code(1000, ""), "1");
    EXPECT_EQ(code(1000, bytes), "1") << "beyond the end";
    EXPECT_EQ(code(500, bytes.substr(500, 1000)), "0") << "from further back";
    EXPECT_EQ(code(0, part(0)), "0") << "a late copy cuts nothing off";
    EXPECT_EQ(tree(), "") << "nothing half";
    EXPECT_EQ(code(1500, bytes.substr(1500)), "2");
    EXPECT_EQ(tree(), "file=...");

    auto damaged = one_.file("damaged", bytes);
    damaged.FilehHash = hashText("something else");
    const auto bad = *event(one_, kJournalCreate, damaged).TransmitToken;
    EXPECT_EQ(chunk(bad, 0, bytes), 3);
    EXPECT_EQ(chunk(bad, 0, bytes), 1) << "begins again";
}

TEST_F(ChangeTest, onlyTheRightTokenChangesAndOnlyItsShare) {
    const auto carl = metadata().addUser("carl@alpha.test", alpha_.id, anna_.password);
    metadata().grant(docs_.id, carl.id, true);
    const auto reader = device("carl@alpha.test", "anna's");
    const auto plansFile = addFile(plans_, "plans", "plans");
    const auto good = one_.file("good", "good");
    ASSERT_EQ(send(one_, kJournalCreate, good, "good"), "1:2");

    const auto status = [&](Device device, const std::function<void(TWVirtualFile&)>& spoil, int type = 0) {
        auto record = one_.file("bad", "");
        spoil(record);
        return eventReply(device, type, record).status;
    };
    const auto nothing = [](TWVirtualFile&) {};
    Device forged = one_;
    forged.token.back() = forged.token.back() == '0' ? '1' : '0';
    EXPECT_EQ(status(reader, nothing), 403);
    EXPECT_EQ(status(forged, nothing), 403);
    EXPECT_EQ(status(one_, [&](auto& r) { r.ShareId = plans_.id; }), 403);
    for (const char* id : {"", "F", "../F", "F/../../x", "Uxx", "F\n"})
        EXPECT_EQ(status(one_, [&](auto& r) { r.InternalName = id; }), 400) << id;
    EXPECT_EQ(status(one_, [&](auto& r) { r.AllocationSize = -1; }), 400);
    EXPECT_EQ(status(one_, nothing, 77), 400);
    EXPECT_EQ(status(one_, [&](auto& r) { r.InternalName = plansFile->InternalName; }), 409);
    EXPECT_EQ(status(one_, [&](auto& r) { r.ParrentId = plans_.id; }), 200);

    // An upload name of another share, or one that is a path, is not the name that the bytes get.
    for (const std::string& name : {plansFile->UploadName.str(), std::string("../../service.db")}) {
        auto record = one_.file(name.substr(0, 2) + "thief", "stolen");
        record.UploadName = name;
        EXPECT_EQ(send(one_, kJournalCreate, record, "stolen"), "1:2");
    }
    EXPECT_EQ(tree(),
              "..thief=stolen\nU" + plansFile->UploadName.str().substr(1, 1) + "thief=stolen\ngood=good");
    // A right that ends ends the uploads under way.
    const auto token = *event(one_, kJournalCreate, one_.file("late", "late")).TransmitToken;
    metadata().grant(docs_.id, anna_.id, true);
    EXPECT_EQ(chunk(token, 0, "late"), -403);
    metadata().grant(docs_.id, anna_.id, false);
    EXPECT_EQ(chunk(token, 0, "late"), 2);
}

TEST_F(ChangeTest, theClientApiKeepsTheSameRules) {
    const auto file = one_.file("file", "x");
    ASSERT_EQ(send(one_, kJournalCreate, file, "x"), "1:2");
    const auto folder = one_.folder("folder");
    ASSERT_EQ(send(one_, kJournalCreate, folder, ""), "1");
    const std::string id = file.InternalName.str();
    const std::string item =
        "\"TwVirtualFileId\":\"" + id + "\",\"ShareId\":\"" + docs_.id + "\",\"Vshare\":\"\"";
    const std::string parent = "\"ShareId\":\"" + docs_.id + "\",\"Parent\":\"" + docs_.id + "\"";
    struct {
        const char* path;
        const char* method;
        std::string request;
        const char* answer;
        const char* tree;
    } const cases[] = {
        {"/clientapi.aspx", "CreateFolder", "{" + parent + ",\"FolderName\":\"Folder\"}",
         "\"PublicName\":\"Folder (2)\"", "Folder (2)/\nfile=x\nfolder/"},
        {"/clientapi.aspx", "Rename", "{" + item + ",\"Rename\":\"100 %\"}", "\"101:Ok",
         "100 %=x\nFolder (2)/\nfolder/"},
        {"/ClientApi.aspx", "Move", "{" + item + ",\"NewParentId\":\"" + folder.InternalName.str() + "\"}",
         "\"response\":", "Folder (2)/\nfolder/\nfolder/100 %=x"},
        {"/clientapi.aspx", "Move", "{" + item + ",\"NewParentId\":\"Fnone\"}",
         "\"110:", "Folder (2)/\nfolder/\nfolder/100 %=x"},
        {"/clientapi.aspx", "Delete", "{" + item + ",\"Tick\":99}", "\"101:Ok", "Folder (2)/\nfolder/"},
    };
    for (const auto& one : cases) {
        const auto reply = clientApi(one_.token, one.method, escaped(one.request), one.path);
        EXPECT_NE(reply.body.find(one.answer), std::string::npos) << one.request << reply.body;
        EXPECT_EQ(tree(), one.tree) << one.request;
    }
    EXPECT_EQ(clientApi("false", "Delete", escaped(cases[4].request)).status, 403);
    metadata().grant(docs_.id, anna_.id, true);
    EXPECT_EQ(clientApi(one_.token, "CreateFolder", escaped(cases[0].request)).status, 403);
}

/// The same on a process that can be killed, and on a disk that is full.
class KilledServiceTest : public ChangeWorld {
  protected:
    void serveOutside(std::optional<rlim_t> largestFile = std::nullopt) {
        process_.emplace(folder_.path("data"), RLIMIT_FSIZE, largestFile);
        client_ = std::make_unique<HttpsClient>(data_->certificates().authority.string(), process_->port());
    }
    int files(const char* folder) {
        int count = 0;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(folder_.path(folder)))
            count += entry.is_regular_file() ? 1 : 0;
        return count;
    }
    std::optional<ServingProcess> process_;
};

TEST_F(KilledServiceTest, anUploadGoesOnAfterTheKillAndNothingHalfShows) {
    stop();
    serveOutside();
    const std::string bytes = noise((3 << 20) + 5);
    const auto file = one_.file("file", bytes);
    const std::string token = *event(one_, kJournalCreate, file).TransmitToken;
    const auto piece = [&](int n) { return bytes.substr(static_cast<std::size_t>(n) << 20, 1 << 20); };
    for (int n = 0; n < 3; ++n) {
        EXPECT_EQ(chunk(token, n << 20, piece(n)), 0);
        process_->stop(SIGKILL);
        // What a write that was cut off leaves behind is no part of the file.
        for (const auto& part : std::filesystem::directory_iterator(folder_.path("data/contents/incoming")))
            std::ofstream(part.path(), std::ios::app) << "torn";
        serveOutside();
        EXPECT_EQ(tree(), "");
    }
    EXPECT_EQ(chunk(token, 3 << 20, piece(3)), 2);
    process_->stop(SIGKILL);
    serveOutside();
    EXPECT_EQ(tree(), "file=...");
    EXPECT_EQ(chunk(token, 3 << 20, piece(3)), 2) << "its answer may have been lost in the kill";
    EXPECT_EQ(files("data/contents/incoming"), 0);
}

TEST_F(KilledServiceTest, atAnyMomentOfManyUploadsTheKillLeavesWholeFiles) {
    stop();
    std::map<std::string, std::string> sent;
    for (int round = 0; round < 6; ++round) {
        serveOutside();
        std::atomic<int> done = 0;
        std::thread killer([&] {
            while (done < 3 + 7 * round)
                std::this_thread::yield();
            process_->kill();
        });
        for (int i = 0; i < 200; ++i) {
            const std::string name = std::to_string(round) + "-" + std::to_string(i);
            const auto file = one_.file(name, name);
            const auto http = eventReply(one_, kJournalCreate, file);
            const auto begin = http.body.find("\"TransmitToken\":\"");
            if (begin == std::string::npos) break;
            if (chunk(http.body.substr(begin + 17, 64), 0, name) != 2) break;
            sent[name] = name;
            ++done;
        }
        done = 1000;
        killer.join();
        process_->wait();
    }
    serveOutside();
    // tree() compares each file's bytes with its record; what was answered has to be there.
    const std::string all = "\n" + tree() + "\n";
    for (const auto& [name, contents] : sent)
        EXPECT_NE(all.find("\n" + name + "=" + contents + "\n"), std::string::npos) << name;
    EXPECT_FALSE(sent.empty());
}

TEST_F(KilledServiceTest, aFullDiskIsToldAndTheUploadGoesOnWhenThereIsRoom) {
    stop();
    serveOutside(3 << 19);
    const std::string bytes = noise(2 << 20);
    const auto file = one_.file("file", bytes);
    const std::string token = *event(one_, kJournalCreate, file).TransmitToken;
    EXPECT_EQ(chunk(token, 0, bytes.substr(0, 1 << 20)), 0);
    EXPECT_EQ(chunk(token, 1 << 20, bytes.substr(1 << 20)), -507);
    process_->stop(SIGTERM);
    serveOutside();
    EXPECT_EQ(tree(), "");
    EXPECT_EQ(chunk(token, 1 << 20, bytes.substr(1 << 20)), 2);
    EXPECT_EQ(tree(), "file=...");
}

TEST_F(KilledServiceTest, whatNobodyGoesOnWithIsSwept) {
    const auto token = *event(one_, kJournalCreate, one_.file("left", "left behind")).TransmitToken;
    EXPECT_EQ(chunk(token, 0, "left"), 0);
    data_->dropOldContents(std::chrono::hours(24));
    EXPECT_EQ(files("data/contents/incoming"), 1);
    const auto part = std::filesystem::directory_iterator(folder_.path("data/contents/incoming"))->path();
    std::filesystem::last_write_time(part, std::filesystem::last_write_time(part) - std::chrono::hours(25));
    data_->dropOldContents(std::chrono::hours(0));
    EXPECT_EQ(files("data/contents/incoming"), 0);
    EXPECT_EQ(chunk(token, 4, " behind"), 1);

    // Contents without an item stay as long as somebody may be about to store it.
    data_->contents().create("Ustray")->commit(ContentWriter::Durability::now);
    const auto slice = static_cast<unsigned>(std::stoul(digestOf("Ustray").substr(0, 2), nullptr, 16));
    data_->dropStrayContents(slice);
    EXPECT_TRUE(data_->contents().open("Ustray"));
    EXPECT_EQ(data_->contents().namesOlderThan(std::chrono::seconds(0), slice),
              std::vector<std::string>{"Ustray"});
}

}  // namespace
}  // namespace tarnwell::service::testing
