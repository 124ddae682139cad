#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>

#include "service/Exporter.h"
#include "service/FileContentStore.h"
#include "service/Importer.h"
#include "service/Names.h"
#include "service/ServiceError.h"
#include "service/ServiceWorld.h"
#include "service/ShareTree.h"

namespace tarnwell::service::testing {
namespace {

class ImportTest : public ServiceWorld {
  protected:
    ImportCounts import(const std::string& shareId) {
        return importFolder(metadata(), data_->contents(), shareId, source_.path(),
                            [this](const std::string& line) { reports_ += line + "\n"; });
    }
    /// Path and contents of every item; folders end with a slash.
    std::map<std::string, std::string> tree() {
        std::map<std::string, std::string> out;
        change(docs_, [&](ShareChange& change) { collect(change, docs_.id, "", out); });
        return out;
    }
    void collect(ShareChange& change, std::string_view parent, const std::string& path,
                 std::map<std::string, std::string>& out) {
        for (const auto& item : change.children(parent)) {
            const std::string here = path + item->PublicName.str();
            if (item->IsFile) {
                const auto reader = data_->contents().open(item->UploadName.view());
                ASSERT_TRUE(reader) << here;
                std::string bytes(static_cast<std::size_t>(reader->size()), '\0');
                reader->read(0, bytes.data(), bytes.size());
                out[here] = bytes;
            } else {
                out[here + "/"] = "";
                collect(change, item->InternalName.view(), here + "/", out);
            }
        }
    }
    int blobs() {
        int count = 0;
        for (const auto& entry :
             std::filesystem::recursive_directory_iterator(folder_.path("data/contents"))) {
            count += entry.is_regular_file() ? 1 : 0;
        }
        return count;
    }

    tarnwell::testing::TemporaryFolder source_;
    std::string reports_;
};

TEST_F(ImportTest, keepsEveryNameThatCanBeKept) {
    const std::string longName(251, 'n');
    source_.write("A.txt", "upper");
    source_.write("a.txt", "lower");
    source_.write("caf\xC3\xA9", "composed");
    source_.write("cafe\xCC\x81", "decomposed");
    source_.write(" two  spaces ", "spaces");
    source_.write("plus+percent%25&.txt", "signs");
    source_.write(longName + ".txt", "long");
    source_.write(longName + ".TXT", "longer");
    source_.write("deep/er/file", "deep");
    source_.write("Deep/file", "other");
    source_.write(".hidden", "dot");
    source_.write("bad\xFFname", "not UTF-8");
    source_.write("line\nbreak", "control");
    ASSERT_EQ(::symlink("A.txt", source_.path("link").c_str()), 0);
    ASSERT_EQ(::symlink("deep", source_.path("linked folder").c_str()), 0);
    ASSERT_EQ(::mkfifo(source_.path("pipe").c_str(), 0600), 0);

    const auto counts = import(docs_.id);
    EXPECT_EQ(counts.files, 11);
    EXPECT_EQ(counts.folders, 3);
    EXPECT_EQ(counts.skipped, 5) << reports_;
    EXPECT_EQ(counts.renamed, 4) << reports_;
    const std::map<std::string, std::string> expected = {
        {"A.txt", "upper"},
        {"a (2).txt", "lower"},
        {"cafe\xCC\x81", "decomposed"},
        {"caf\xC3\xA9 (2)", "composed"},
        {" two  spaces ", "spaces"},
        {"plus+percent%25&.txt", "signs"},
        {longName + ".TXT", "longer"},
        {std::string(247, 'n') + " (2).txt", "long"},
        {"Deep/", ""},
        {"Deep/file", "other"},
        {"deep (2)/", ""},
        {"deep (2)/er/", ""},
        {"deep (2)/er/file", "deep"},
        {".hidden", "dot"},
    };
    EXPECT_EQ(tree(), expected);
    EXPECT_EQ(metadata().shareWithId(docs_.id)->tick, 14);

    // Again: nothing is overwritten.
    import(docs_.id);
    EXPECT_EQ(tree().at("A (3).txt"), "upper");
    EXPECT_EQ(tree().at("A.txt"), "upper");
}

TEST_F(ImportTest, whatIsExportedIsWhatWasImported) {
    source_.write("folder/in it/file", std::string(3'000'000, 'x'));
    source_.write("folder/empty", "");
    source_.write("caf\xC3\xA9", "accents");
    ASSERT_EQ(::chmod(source_.path("caf\xC3\xA9").c_str(), 0640), 0);
    import(docs_.id);
    source_.write("later", "and gone");
    putFile(metadata(), data_->contents(), docs_.id, source_.path("later"), "/later");
    metadata().change(docs_.id,
                      [](ShareChange& change) { removeItem(change, *itemAtPath(change, "/later")); });
    std::filesystem::remove(source_.path("later"));

    const tarnwell::testing::TemporaryFolder target;
    const auto counts = exportShare(metadata(), data_->contents(), docs_.id, target.path());
    EXPECT_EQ(counts.files, 3);
    EXPECT_EQ(counts.folders, 2);
    const std::string command = "diff -r '" + source_.path() + "' '" + target.path() + "'";
    EXPECT_EQ(std::system(command.c_str()), 0);
    namespace fs = std::filesystem;
    for (const char* name : {"caf\xC3\xA9", "folder/empty"}) {
        EXPECT_EQ(fs::status(source_.path(name)).permissions(), fs::status(target.path(name)).permissions());
        EXPECT_LT(fs::last_write_time(source_.path(name)) - fs::last_write_time(target.path(name)),
                  std::chrono::milliseconds(1))
            << name;
    }
    EXPECT_THROW(exportShare(metadata(), data_->contents(), docs_.id, target.path()), ServiceError);
}

TEST_F(ImportTest, keepsTimesAndPermissions) {
    source_.write("f", "x");
    ASSERT_EQ(::chmod(source_.path("f").c_str(), 0750), 0);
    const timespec times[] = {{1'000'000'000, 0}, {1'234'567'890, 123'456'700}};
    ASSERT_EQ(::utimensat(AT_FDCWD, source_.path("f").c_str(), times, 0), 0);
    import(docs_.id);
    change(docs_, [&](ShareChange& change) {
        const auto item = itemAtPath(change, "F");
        ASSERT_TRUE(item);
        EXPECT_EQ(item->POSIXPermissions, 0750);
        EXPECT_EQ(ticks(item->LastWriteTime), kUnixEpochTicks + 12'345'678'901'234'567);
        EXPECT_EQ(ticks(item->LastAccessTime), kUnixEpochTicks + 10'000'000'000'000'000);
        EXPECT_NE(item->CreationTime, Date{});
    });
}

TEST_F(ImportTest, aFailedImportLeavesNothing) {
    source_.write("a", "a");
    source_.write("b/c", "c");
    EXPECT_THROW(import("no such share"), ServiceError);
    EXPECT_EQ(blobs(), 0);
    EXPECT_THROW(importFolder(metadata(), data_->contents(), docs_.id, source_.path("a"), [](const auto&) {}),
                 ServiceError);
    EXPECT_TRUE(tree().empty());
}

TEST(NamesTest, freeNamesKeepTheExtensionAndTheLimit) {
    const auto second = [](const std::string& name, bool isFile) {
        return freeName(name, isFile, [](const std::string&) { return false; });
    };
    EXPECT_EQ(second("a.txt", true), "a (2).txt");
    EXPECT_EQ(second("a.tar.gz", true), "a.tar (2).gz");
    EXPECT_EQ(second("none", true), "none (2)");
    EXPECT_EQ(second(".profile", true), ".profile (2)");
    EXPECT_EQ(second("v1.0", false), "v1.0 (2)");
    EXPECT_EQ(freeName("a", true, [](const std::string& name) { return name != "a (4)"; }), "a (4)");
    // 127 two-byte characters and one of one byte: cutting must not leave half a character.
    std::string umlauts = "x";
    while (umlauts.size() < 254)
        umlauts += "\xC3\xA4";
    const auto cut = second(umlauts, true);
    EXPECT_LE(cut.size(), kMaxNameBytes);
    EXPECT_TRUE(isUtf8(cut));
    for (const char* text : {"\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xE2\x82", "\x80"}) {
        EXPECT_FALSE(isUtf8(text));
    }
}

TEST(ContentStoreTest, namesAreGivenOnceAndUnfinishedContentsVanish) {
    const tarnwell::testing::TemporaryFolder folder;
    FileContentStore store(folder.path());
    const auto put = [&](const char* bytes) {
        const auto writer = store.create("Uone");
        writer->append(bytes);
        writer->commit(ContentWriter::Durability::now);
    };
    store.create("Uone")->append("cut off");
    EXPECT_FALSE(store.open("Uone"));
    put("first");
    EXPECT_THROW(put("second"), ServiceError);
    const auto reader = store.open("Uone");
    store.remove("Uone");
    EXPECT_FALSE(store.open("Uone"));
    char bytes[16];
    EXPECT_EQ(std::string(bytes, reader->read(1, bytes, sizeof bytes)), "irst")
        << "readers keep what they opened";
    for (const char* name : {"", "../x", "a/b", "a.b", "x y"})
        EXPECT_THROW(store.create(name), ServiceError) << name;
    folder.write("incoming/Uold.0123", "left by a process that was killed");
    store.dropUnfinished(std::chrono::hours(1));
    EXPECT_TRUE(folder.exists("incoming/Uold.0123")) << "it may still be being written";
    store.dropUnfinished(std::chrono::hours(-1));
    EXPECT_FALSE(folder.exists("incoming/Uold.0123"));
}

}  // namespace
}  // namespace tarnwell::service::testing
