#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/fuse.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "drive/DriveWorld.h"
#include "drive/FuseAdapter.h"

namespace tarnwell::testing {
namespace {

/// Plays the kernel over a socket: one packet per message. Needs no device and no mount.
class FuseProtocolTest : public ::testing::Test {
  protected:
    struct Reply {
        int error = 0;
        std::string body;
        template <class T>
        T as() const {
            T value{};
            std::memcpy(&value, body.data(), std::min(sizeof value, body.size()));
            return value;
        }
    };

    void SetUp() override {
        int ends[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
        kernel_ = ends[0];
        const timeval limit{10, 0};
        ::setsockopt(kernel_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        world.addShare("S", "Share");
        adapter = std::make_unique<FuseAdapter>(world.drive, MountOptions{}, [] {});
        ASSERT_EQ(adapter->attach(ends[1]), "");
        loop_ = std::thread([this] { adapter->run(); });
        fuse_init_in init{};
        init.major = FUSE_KERNEL_VERSION;
        init.minor = FUSE_KERNEL_MINOR_VERSION;
        ASSERT_EQ(call(FUSE_INIT, 0, bytesOf(init)).error, 0);
    }

    void TearDown() override {
        ::shutdown(kernel_, SHUT_RDWR);
        loop_.join();
        ::close(kernel_);
    }

    template <class T>
    static std::string bytesOf(const T& value) {
        return {reinterpret_cast<const char*>(&value), sizeof value};
    }

    void send(std::uint32_t opcode, std::uint64_t node, const std::string& body) {
        fuse_in_header header{};
        header.len = static_cast<std::uint32_t>(sizeof header + body.size());
        header.opcode = opcode;
        header.unique = ++unique_;
        header.nodeid = node;
        const auto message = bytesOf(header) + body;
        ASSERT_EQ(::send(kernel_, message.data(), message.size(), 0), static_cast<ssize_t>(message.size()));
    }

    /// Sends and takes the one answer, which must be to this request.
    Reply call(std::uint32_t opcode, std::uint64_t node, const std::string& body) {
        send(opcode, node, body);
        std::string message(1 << 17, '\0');
        const auto size = ::recv(kernel_, message.data(), message.size(), 0);
        fuse_out_header header{};
        if (size < static_cast<ssize_t>(sizeof header)) return {-1, {}};
        std::memcpy(&header, message.data(), sizeof header);
        EXPECT_EQ(header.unique, unique_);
        EXPECT_EQ(header.len, static_cast<std::uint32_t>(size));
        return {-header.error, message.substr(sizeof header, static_cast<std::size_t>(size) - sizeof header)};
    }

    Reply lookup(std::uint64_t parent, const std::string& name) {
        return call(FUSE_LOOKUP, parent, name + std::string(1, '\0'));
    }
    void forget(std::uint64_t node, std::uint64_t count) {
        fuse_forget_in body{count};
        send(FUSE_FORGET, node, bytesOf(body));
        call(FUSE_STATFS, FUSE_ROOT_ID, {});  // forgetting has no answer; the order of one connection is kept
    }

    DriveWorld world;
    std::unique_ptr<FuseAdapter> adapter;

  private:
    int kernel_ = -1;
    std::uint64_t unique_ = 0;
    std::thread loop_;
};

TEST_F(FuseProtocolTest, forgetsWhatTheKernelForgets) {
    const auto file = world.addCached("S", "f", "text");
    const auto share = lookup(FUSE_ROOT_ID, "Share").as<fuse_entry_out>();
    const auto first = lookup(share.nodeid, "f").as<fuse_entry_out>();
    const auto second = lookup(share.nodeid, "f").as<fuse_entry_out>();
    EXPECT_EQ(first.nodeid, second.nodeid);
    EXPECT_EQ(first.attr_valid + first.entry_valid + first.attr_valid_nsec + first.entry_valid_nsec, 0u)
        << "nothing may be kept";
    world.rename(file, "g");
    EXPECT_EQ(lookup(share.nodeid, "g").as<fuse_entry_out>().nodeid, first.nodeid);
    lookup(FUSE_ROOT_ID, ".fuselock");
    lookup(share.nodeid, ".twrefresh");
    EXPECT_EQ(adapter->operations().nodeCount(), 4u);

    forget(first.nodeid, 2);
    EXPECT_EQ(call(FUSE_GETATTR, first.nodeid, bytesOf(fuse_getattr_in{})).error, 0);
    forget(first.nodeid, 1);
    EXPECT_EQ(call(FUSE_GETATTR, first.nodeid, bytesOf(fuse_getattr_in{})).error, ESTALE);
    for (std::uint64_t node = 2; node < 10; ++node)
        forget(node, 100);
    EXPECT_EQ(adapter->operations().nodeCount(), 0u);
    EXPECT_NE(lookup(FUSE_ROOT_ID, "Share").as<fuse_entry_out>().nodeid, share.nodeid)
        << "numbers are not reused";
}

TEST_F(FuseProtocolTest, answersNonsenseOnceWithAnError) {
    world.addCached("S", "f", "text");
    const auto share = lookup(FUSE_ROOT_ID, "Share").as<fuse_entry_out>();
    const auto file = lookup(share.nodeid, "f").as<fuse_entry_out>();
    fuse_read_in read{};
    read.fh = 4711;
    read.size = 10;
    const std::tuple<std::uint32_t, std::uint64_t, std::string, int> cases[] = {
        {FUSE_LOOKUP, FUSE_ROOT_ID, std::string("..\0", 3), ENOENT},
        {FUSE_LOOKUP, FUSE_ROOT_ID, std::string("a/b\0", 4), ENOENT},
        {FUSE_LOOKUP, FUSE_ROOT_ID, std::string(1025, 'n') + '\0', ENAMETOOLONG},
        {FUSE_LOOKUP, 999, std::string("f\0", 2), ESTALE},
        {FUSE_GETATTR, 999, bytesOf(fuse_getattr_in{}), ESTALE},
        {FUSE_READ, file.nodeid, bytesOf(read), EBADF},
        {FUSE_READDIR, share.nodeid, bytesOf(read), EBADF},
        {FUSE_RELEASE, file.nodeid, bytesOf(fuse_release_in{4711, 0, 0, 0}), 0},
        {FUSE_WRITE, file.nodeid, bytesOf(fuse_write_in{4711, 0, 1, 0, 0, 0, 0}) + "x", EBADF},
        {FUSE_UNLINK, share.nodeid, std::string("none\0", 5), ENOENT},
        {FUSE_MKDIR, share.nodeid, bytesOf(fuse_mkdir_in{0700, 0}) + std::string(256, 'n') + '\0',
         ENAMETOOLONG},
        {FUSE_MKDIR, share.nodeid, bytesOf(fuse_mkdir_in{0700, 0}) + std::string("\xff\0", 2), EILSEQ},
        {FUSE_SYMLINK, share.nodeid, std::string("l\0f\0", 4), EPERM},
        {9999, FUSE_ROOT_ID, {}, ENOSYS},
    };
    for (const auto& [opcode, node, body, error] : cases) {
        EXPECT_EQ(call(opcode, node, body).error, error) << opcode << " of " << node;
    }
}

TEST_F(FuseProtocolTest, anItemInTheOldPlaceOfAnotherIsNotMistakenForIt) {
    const auto file = world.addCached("S", "a", "one");
    const auto share = lookup(FUSE_ROOT_ID, "Share").as<fuse_entry_out>();
    const auto node = lookup(share.nodeid, "a").as<fuse_entry_out>().nodeid;
    world.rename(file, "b");
    world.addCached("S", "a", "another");
    EXPECT_EQ(call(FUSE_GETATTR, node, bytesOf(fuse_getattr_in{})).as<fuse_attr_out>().attr.size, 3u);
    EXPECT_NE(lookup(share.nodeid, "a").as<fuse_entry_out>().nodeid, node);
    {
        const auto lock = world.store.beginWriteStorage();
        world.store.deleteFileMetadata(file);
    }
    // The kernel looks the name up again then, in place of telling the program that there is none.
    const std::tuple<std::uint32_t, std::string> requests[] = {
        {FUSE_GETATTR, bytesOf(fuse_getattr_in{})},
        {FUSE_SETATTR, bytesOf(fuse_setattr_in{})},
        {FUSE_ACCESS, bytesOf(fuse_access_in{R_OK, 0})},
        {FUSE_OPEN, bytesOf(fuse_open_in{O_RDONLY, 0})},
        {FUSE_OPENDIR, bytesOf(fuse_open_in{O_RDONLY, 0})},
        {FUSE_LOOKUP, std::string("x\0", 2)},
        {FUSE_MKDIR, bytesOf(fuse_mkdir_in{0700, 0}) + std::string("x\0", 2)},
        {FUSE_UNLINK, std::string("x\0", 2)},
        {FUSE_LISTXATTR, bytesOf(fuse_getxattr_in{})},
    };
    for (const auto& [opcode, body] : requests)
        EXPECT_EQ(call(opcode, node, body).error, ESTALE) << opcode;
}

}  // namespace
}  // namespace tarnwell::testing
