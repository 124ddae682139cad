#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

#include "service/Names.h"
#include "service/ServiceError.h"
#include "service/ServiceWorld.h"
#include "service/ShareTree.h"
#include "util/RecordMapping.h"

namespace tarnwell::service::testing {
namespace {

TWVirtualFile newItem(const std::string& name, const std::string& parent, bool isFile) {
    TWVirtualFile item;
    item.InternalName = newInternalName();
    item.ParrentId = parent;
    item.PublicName = name;
    item.IsFile = isFile;
    item.AllocationSize = 0;
    return item;
}

class CatchUpTest : public ServiceWorld {
  protected:
    std::string addFolder(const std::string& name, const std::string& parent) {
        TWVirtualFile item = newItem(name, parent, false);
        change(docs_, [&](ShareChange& change) { insertItem(change, item); });
        return item.InternalName.str();
    }
    OSXCatchUpResponse page(std::int32_t from, std::int32_t take) {
        return *metadata().changesSince(docs_.id, from, take, "url");
    }

    /// Catches up as clients do: a full page is followed by one from its start plus the page size. `between`
    /// runs after each page, as other users' changes do.
    std::map<std::string, std::int32_t> catchUp(
        std::int32_t from, std::int32_t take, std::int32_t& largest,
        const std::function<void()>& between = [] {}) {
        std::map<std::string, std::int32_t> seen;
        for (int pages = 0; pages < 10'000; ++pages) {
            const auto one = page(from, take);
            std::int32_t last = from;
            for (const auto& item : one.TwVirtualFiles) {
                EXPECT_GT(item->Tick, last);
                last = item->Tick;
                seen[item->InternalName.str()] = std::max(seen[item->InternalName.str()], item->Tick);
            }
            EXPECT_EQ(one.LargestTick, last);
            EXPECT_LE(one.TwVirtualFiles.size(), static_cast<std::size_t>(take));
            largest = one.LargestTick;
            if (one.TwVirtualFiles.size() < static_cast<std::size_t>(take)) return seen;
            between();
            from += take;
        }
        ADD_FAILURE() << "paging does not end";
        return seen;
    }
};

TEST_F(CatchUpTest, pagingSkipsNothingHoweverSparseTheTicksAre) {
    std::mt19937 random(7);
    std::vector<std::string> names;
    std::map<std::string, std::int32_t> truth;
    const auto stamp = [&](int count) {
        change(docs_, [&](ShareChange& change) {
            for (int i = 0; i < count; ++i) {
                auto item = change.find(names[random() % names.size()]);
                item->Tick = change.nextTick();
                change.put(*item);
                truth[item->InternalName.str()] = item->Tick;
            }
        });
    };
    for (const int count : {1, 10, 11, 37}) {
        change(docs_, [&](ShareChange& change) {
            while (names.size() < static_cast<std::size_t>(count)) {
                TWVirtualFile item = newItem("n" + std::to_string(names.size()), docs_.id, true);
                insertItem(change, item);
                names.push_back(item.InternalName.str());
                truth[names.back()] = item.Tick;
            }
        });
        for (const int restamped : {0, 60}) {
            SCOPED_TRACE(std::to_string(count) + " records, " + std::to_string(restamped) + " stamped again");
            stamp(restamped);
            std::int32_t largest = 0;
            EXPECT_EQ(catchUp(-1, 10, largest), truth);
            EXPECT_EQ(catchUp(0, 10, largest), truth)
                << "a full refresh starts at 0: no record may have that tick";
            // Changes made between two pages are part of a later page or of the next catch-up from
            // LargestTick.
            auto seen = catchUp(-1, 10, largest, [&] { stamp(3); });
            for (const auto& [name, tick] : catchUp(largest, 10, largest))
                seen[name] = std::max(seen[name], tick);
            EXPECT_EQ(seen, truth);
        }
    }
}

TEST_F(CatchUpTest, repliesOverHttpAreWholeAndCompressedOnDemand) {
    const auto file = addFile(docs_, "a.txt", "abc");
    change(docs_, [&](ShareChange& change) {
        for (int i = 0; i < 50; ++i) {
            TWVirtualFile item = newItem("f" + std::to_string(i), docs_.id, false);
            insertItem(change, item);
        }
    });
    serve();
    const auto token = shareTokens("alpha.localhost", "anna@alpha.test", "anna's").at("Docs");
    for (const bool compressed : {false, true}) {
        client_->setCompressed(compressed);
        // Tokens travel percent-encoded.
        const auto http =
            catchUpReply("alpha.localhost", docs_.id,
                         "%" + std::string(token[0] >= 'a' ? "6" : "3") +
                             std::string(1, "0123456789abcdef"[token[0] & 15]) + token.substr(1),
                         "-1");
        ASSERT_EQ(http.status, 200) << http.body;
        EXPECT_EQ(http.headers.contains("content-encoding"), compressed);
        std::string error;
        const auto page = parseRecord<OSXCatchUpResponse>(http.body, error);
        ASSERT_TRUE(page) << error;
        EXPECT_EQ(page->TwVirtualFiles.size(), 51u);
        EXPECT_EQ(page->ShareTick, 51);
        EXPECT_EQ(page->LargestTick, 51);
        const auto& first = *page->TwVirtualFiles.front();
        EXPECT_EQ(first.UploadName, file->UploadName);
        EXPECT_FALSE(first.UploadUrl.empty()) << "a file without one is merged again and again by clients";
        EXPECT_EQ(first.FilehHash, "90-01-50-98-3C-D2-4F-B0-D6-96-3F-7D-28-E1-7F-72");
        EXPECT_EQ(first.EndOfFile, 3);
    }
    const auto nothing = catchUpReply("alpha.localhost", docs_.id, token, "51");
    std::string error;
    const auto page = parseRecord<OSXCatchUpResponse>(nothing.body, error);
    ASSERT_TRUE(page) << error;
    EXPECT_TRUE(page->TwVirtualFiles.empty());
    EXPECT_EQ(page->LargestTick, 51);
}

TEST_F(CatchUpTest, removingAFolderTellsOfEverythingInItDeepestFirst) {
    const auto outer = addFolder("outer", docs_.id);
    const auto inner = addFolder("inner", outer);
    TWVirtualFile leaf = newItem("leaf", inner, true);
    change(docs_, [&](ShareChange& change) { insertItem(change, leaf); });
    change(docs_,
           [&](ShareChange& change) { EXPECT_EQ(removeItem(change, *itemAtPath(change, "/outer/")), 3); });
    const auto changes = page(3, 10);
    ASSERT_EQ(changes.TwVirtualFiles.size(), 3u);
    const std::string expected[] = {leaf.InternalName.str(), inner, outer};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(changes.TwVirtualFiles[i]->InternalName, expected[i]);
        EXPECT_TRUE(changes.TwVirtualFiles[i]->Deleted);
        EXPECT_EQ(changes.TwVirtualFiles[i]->Tick, 4 + i);
    }
    EXPECT_EQ(changes.ShareTick, 6);
    // The name is free again, also several times over.
    for (int i = 0; i < 2; ++i) {
        addFolder("OUTER", docs_.id);
        change(docs_, [&](ShareChange& change) { removeItem(change, *itemAtPath(change, "outer")); });
    }
}

TEST_F(CatchUpTest, movesAreCheckedAndTakeOneTick) {
    const auto a = addFolder("a", docs_.id);
    const auto b = addFolder("b", a);
    addFolder("Taken", docs_.id);
    const auto move = [&](const std::string& item, const std::string& parent, const std::string& name) {
        change(docs_, [&](ShareChange& change) { moveItem(change, *change.find(item), parent, name); });
    };
    EXPECT_THROW(move(b, docs_.id, "taken"), ServiceError);
    EXPECT_THROW(move(a, b, "a"), ServiceError);
    EXPECT_THROW(move(a, a, "a"), ServiceError);
    EXPECT_THROW(move(b, "Fnowhere", "b"), ServiceError);
    EXPECT_THROW(move(b, docs_.id, "x/y"), ServiceError);
    EXPECT_EQ(page(-1, 10).ShareTick, 3) << "a refused change takes no tick";
    move(a, docs_.id, "A");
    move(b, docs_.id, "b");
    const auto changes = page(3, 10);
    ASSERT_EQ(changes.TwVirtualFiles.size(), 2u);
    EXPECT_EQ(changes.TwVirtualFiles[0]->PublicName, "A");
    EXPECT_EQ(changes.TwVirtualFiles[1]->ParrentId, docs_.id);
}

TEST_F(CatchUpTest, theStoreRefusesClashesAndRollsBack) {
    addFolder("caf\xC3\xA9", docs_.id);
    // The same name in its decomposed form and in another case.
    EXPECT_THROW(addFolder("CAFE\xCC\x81", docs_.id), ServiceError);
    const auto half = [&](ShareChange& change) {
        TWVirtualFile item = newItem("half", docs_.id, true);
        insertItem(change, item);
        throw ServiceError("cut off");
    };
    EXPECT_THROW(change(docs_, half), ServiceError);
    EXPECT_EQ(page(-1, 10).TwVirtualFiles.size(), 1u);
    EXPECT_EQ(page(-1, 10).ShareTick, 1);
    // An identity belongs to one share for good.
    TWVirtualFile stolen = newItem("stolen", plans_.id, true);
    stolen.InternalName = page(-1, 10).TwVirtualFiles[0]->InternalName;
    EXPECT_THROW(change(plans_, [&](ShareChange& change) { insertItem(change, stolen); }), ServiceError);
}

}  // namespace
}  // namespace tarnwell::service::testing
