#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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
        return importFolder(metadata(), data_->contents(), shareId, source_.path(), report_);
    }
    /// Path and contents of every item, as an export shows them; folders end with a slash.
    std::map<std::string, std::string> tree() {
        const tarnwell::testing::TemporaryFolder target;
        exportShare(metadata(), data_->contents(), docs_.id, target.path(), report_);
        std::map<std::string, std::string> out;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(target.path())) {
            const auto path = entry.path().string().substr(target.path().size() + 1);
            if (entry.is_directory())
                out[path + "/"] = "";
            else
                out[path] = target.read(path);
        }
        return out;
    }

    tarnwell::testing::TemporaryFolder source_;
    std::string reports_;
    const std::function<void(const std::string&)> report_ = [this](const std::string& line) {
        reports_ += line + "\n";
    };
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

    const tarnwell::testing::TemporaryFolder target;
    const auto counts = exportShare(metadata(), data_->contents(), docs_.id, target.path(), report_);
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
    EXPECT_THROW(exportShare(metadata(), data_->contents(), docs_.id, target.path(), report_), ServiceError);
}

TEST_F(ImportTest, aFailedImportLeavesNothing) {
    source_.write("a", "a");
    source_.write("b/c", "c");
    EXPECT_THROW(import("no such share"), ServiceError);
    const std::filesystem::recursive_directory_iterator blobs(folder_.path("data/contents/blobs"));
    EXPECT_TRUE(
        std::none_of(begin(blobs), end(blobs), [](const auto& one) { return one.is_regular_file(); }));
    EXPECT_THROW(importFolder(metadata(), data_->contents(), docs_.id, source_.path("a"), [](const auto&) {}),
                 ServiceError);
    EXPECT_TRUE(tree().empty());
}

TEST(NamesTest, freeNamesKeepTheExtensionAndTheLimit) {
    const auto second = [](const std::string& name, bool isFile = true) {
        return freeName(name, isFile, [](const std::string&) { return false; });
    };
    EXPECT_EQ(second("a.tar.gz"), "a.tar (2).gz");
    EXPECT_EQ(second(".profile"), ".profile (2)");
    EXPECT_EQ(second("v1.0", false), "v1.0 (2)");
    EXPECT_EQ(freeName("a", true, [](const std::string& name) { return name != "a (4)"; }), "a (4)");
    // 127 two-byte characters and one of one byte: cutting must not leave half a character.
    std::string umlauts = "x";
    while (umlauts.size() < 254)
        umlauts += "\xC3\xA4";
    const auto cut = second(umlauts);
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
