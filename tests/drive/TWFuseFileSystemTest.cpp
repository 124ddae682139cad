#include "drive/TWFuseFileSystem.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "drive/DriveWorld.h"
#include "store/StorePersistence.h"

namespace tarnwell::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class TWFuseFileSystemTest : public ::testing::Test {
  protected:
    std::vector<std::string> names(const std::string& path) {
        std::vector<std::string> result;
        for (const auto& entry : world.drive->contentsOfDirectoryAtPath(path))
            result.push_back(entry.name);
        return result;
    }
    /// What a program gets that opens and reads once; "errno N" otherwise.
    std::string read(const std::string& path, std::size_t size, std::int64_t offset) {
        auto handle = world.drive->openFileAtPath(path, O_RDONLY, 1);
        if (!handle) return "open errno " + std::to_string(handle.error());
        std::string bytes(size, '\0');
        const auto count = world.drive->readFileAtPath(path, handle->get(), bytes.data(), size, offset);
        world.drive->releaseFileAtPath(path, handle->get());
        return count ? bytes.substr(0, *count) : "errno " + std::to_string(count.error());
    }
    TWFuseFileDataPtr open(const std::string& path, int mode) {
        return *world.drive->openFileAtPath(path, mode, 1);
    }
    /// A write as it will be seen by the quiet-period rules.
    void write(const TWVirtualFilePtr& file, TWFuseFileData& handle) {
        ASSERT_TRUE(world.drive->writeFileAtPath(file->FullPath.str(), &handle, "y", 1, 0).ok());
    }

    DriveWorld world;
};

TEST_F(TWFuseFileSystemTest, listsWhatIsVisible) {
    world.addShare("S1", "Caf\u00e9");
    world.addShare("S2", "B");
    const auto folder = world.addFolder("S2", "sub");
    world.addCached("S2", "a.txt", "a");
    world.addCached("S2", "slash/in name", "x");
    world.addCached("S2", "gone.txt", "x")->Deleted = true;
    world.addCached(folder->InternalName.str(), "\u00fc", "u");

    EXPECT_THAT(names("/"), ElementsAre("Cafe\u0301", "B", ".fuselock"));
    EXPECT_THAT(names("/B"), ElementsAre("sub", "a.txt"));
    EXPECT_THAT(names("/b/SUB"), ElementsAre("u\u0308"));
    EXPECT_THAT(names("/Nobody"), IsEmpty());
    EXPECT_THAT(names("/B/nowhere"), IsEmpty());
}

TEST_F(TWFuseFileSystemTest, readsBytes) {
    const std::string bytes = "0123456789";
    world.addShare("S", "B");
    world.addFolder("S", "folder");
    world.addCached("S", "cached", bytes);
    const auto growing = world.addCached("S", "longer-in-cache", bytes);
    growing->AllocationSize = 4;
    growing->LocallyUpdated = true;
    world.addRemote("S", "remote", bytes);
    const auto empty = world.addRemote("S", "empty", "");
    const auto lost = world.addRemote("S", "lost", bytes);
    world.mediator.setRemote(lost->InternalName.str(), "");
    const std::tuple<const char*, std::size_t, std::int64_t, std::string> cases[] = {
        {"/B/cached", 4, 0, "0123"},          {"/B/cached", 100, 8, "89"}, {"/B/cached", 4, 10, ""},
        {"/B/cached", 4, 1 << 30, ""},        {"/B/remote", 4, 3, "3456"}, {"/B/remote", 100, 8, "89"},
        {"/B/longer-in-cache", 100, 2, "23"}, {"/B/empty", 10, 0, ""},     {"/B/folder", 1, 0, "errno 22"},
        {"/B/none", 1, 0, "open errno 2"},
    };
    for (const auto& [path, size, offset, expected] : cases)
        EXPECT_EQ(read(path, size, offset), expected) << path;
    EXPECT_EQ(world.mediator.fetches(), 2u) << "neither an empty file nor the end of one is fetched";

    world.mediator.answerTooMuch(3);
    EXPECT_EQ(read("/B/remote", 4, 0), "0123");
    char byte = 0;
    EXPECT_EQ(world.drive->readFileAtPath("/B/cached", nullptr, &byte, 1, 0).error(), EBADF);
    EXPECT_EQ(world.drive->readFileAtPath("/B/none", nullptr, &byte, 1, 0).error(), EINVAL);
}

/// Attributes that are set while a file is written outlive the process as soon as any open of it is closed or
/// the burst ends.
TEST_F(TWFuseFileSystemTest, attributesOfAFileThatIsWrittenLastWithItsClose) {
    world.addShare("S", "B");
    const auto set = [&](const std::string& path, std::uint32_t permissions) {
        TWFuseFileSystem::AttributeChanges attributes;
        attributes.permissions = permissions;
        EXPECT_TRUE(world.drive->setAttributes(attributes, path, nullptr).ok());
    };
    std::vector<TWFuseFileDataPtr> writers;
    for (const std::string name : {"f", "g", "h"}) {
        const auto file = world.addCached("S", name, "x");
        writers.push_back(open("/B/" + name, O_RDWR));
        write(file, *writers.back());
    }
    const auto reader = open("/B/f", O_RDONLY);
    set("/B/f", 0751);
    EXPECT_TRUE(world.drive->flushFileAtPath("/B/f", reader.get()).ok());
    set("/B/g", 0640);
    world.drive->releaseFileAtPath("/B/g", writers[1].get());
    world.drive->releaseFileAtPath("/B/h", writers[2].get());
    set("/B/h", 0600);

    TWMetadataStorage next(
        {world.layout, world.clock, world.background, [] { return std::string(); }, [] {}});
    next.persistence().load();
    EXPECT_EQ(next.fileWithPath("/B/f")->POSIXPermissions, 0751);
    EXPECT_EQ(next.fileWithPath("/B/g")->POSIXPermissions, 0640);
    EXPECT_EQ(next.fileWithPath("/B/h")->POSIXPermissions, 0600);
}

TEST_F(TWFuseFileSystemTest, lastWriterOfSeveralJournalsAtRelease) {
    world.addShare("S", "B");
    const auto file = world.addCached("S", "f", "x");
    const auto ignored = world.addCached("S", "~f", "x");
    const auto first = open("/B/f", O_RDWR), second = open("/B/f", O_RDWR), other = open("/B/~f", O_RDWR);
    write(file, *first);
    write(file, *second);
    write(ignored, *other);
    world.drive->releaseFileAtPath("/B/f", first.get());
    EXPECT_THAT(world.journal(), IsEmpty());
    EXPECT_TRUE(file->LocallyUpdated.value_or(false)) << "somebody still writes";
    world.drive->releaseFileAtPath("/B/f", second.get());
    world.drive->releaseFileAtPath("/B/~f", other.get());
    EXPECT_THAT(world.journal(), ElementsAre("[Update] /B/f 1"));
    EXPECT_FALSE(ignored->LocallyUpdated.value_or(false));
}

TEST_F(TWFuseFileSystemTest, answersExtendedAttributes) {
    world.addShare("S", "B");
    const auto file = world.addCached("S", "f", "x");
    std::ofstream(world.layout.extendedAttrsPathForFile(*file))
        << R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict><key>color</key>)"
        << R"(<data>cmVk</data><key>com.apple.quarantine</key><data>cQ==</data></dict></plist>)";
    EXPECT_THAT(*world.drive->extendedAttributesOfItemAtPath("/B/f"), ElementsAre("color"));
    EXPECT_EQ(world.drive->extendedAttributesOfItemAtPath("/B/none").error(), ENOENT);
    const std::string status = "com.tarnwell.ferndisk-osx.filestatus";
    const std::tuple<std::string, std::string, std::int64_t, std::string> cases[] = {
        {"color", "/B/f", 0, "red"},
        {"color", "/B/f", 2, "d"},
        {"color", "/B", 0, "-"},  // no such attribute
        {status, "/B/f", 0, "\1"},
        {status, "/B/.DS_Store", 0, std::string(1, '\0')},
        {"com.apple.quarantine", "/B/f", 0, "-"},
    };
    for (const auto& [name, path, position, expected] : cases) {
        const auto value = world.drive->valueOfExtendedAttribute(name, path, position);
        EXPECT_EQ(value ? *value : "-", expected) << name << " of " << path;
        EXPECT_EQ(value.error(), value ? 0 : ENODATA);
    }
}

}  // namespace
}  // namespace tarnwell::testing
