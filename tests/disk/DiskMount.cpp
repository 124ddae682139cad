#define FUSE_USE_VERSION 314
#include "disk/DiskMount.h"

#include <fuse_lowlevel.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <vector>

namespace tarnwell::testing {

namespace {

using Id = ForgetfulDisk::Id;

/// Only the kernel changes what is shown, so what it keeps is always right.
constexpr double kForEver = 3600;
constexpr std::size_t kLongestName = 255;

struct stat statusOf(Id id, const ForgetfulDisk::File& file) {
    struct stat status {};
    status.st_ino = id;
    status.st_mode = file.attributes.mode;
    status.st_nlink = file.links + (S_ISDIR(file.attributes.mode) ? 1 : 0);
    status.st_size = file.target.empty() ? file.contents.size() : std::ssize(file.target);
    status.st_blksize = FileContents::kPage;
    status.st_blocks = file.contents.pages() * FileContents::kPage / 512;
    status.st_mtim = file.attributes.modified;
    status.st_atim = file.attributes.accessed;
    status.st_ctim = file.changed;
    return status;
}

fuse_entry_param entryOf(ForgetfulDisk& disk, Id id) {
    fuse_entry_param entry{};
    entry.ino = id;
    entry.attr = statusOf(id, *disk.file(id));
    entry.attr_timeout = entry.entry_timeout = kForEver;
    return entry;
}

/// One request: holds the mutex, counts the call and answers a fault. `call` returns 0 after it replied, or
/// the errno to reply.
template <class Call>
void serve(fuse_req_t request, const char* name, Id id, Call call) {
    auto& mount = *static_cast<DiskMount*>(fuse_req_userdata(request));
    int error = 0;
    try {
        const std::lock_guard lock(mount.mutex());
        error = mount.faults.next(name, [&] { return mount.disk.pathOf(id); });
        if (error == 0 && !mount.disk.file(id)) error = ESTALE;
        if (error == 0) error = call(mount);
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "forgetful-disk: %s: %s\n", name, problem.what());
        error = EIO;
    }
    if (error != 0) fuse_reply_err(request, error);
}

/// Faults of calls that name an entry look at the entry's own path.
int faultAt(DiskMount& mount, const char* name, Id folder, const char* entry) {
    return mount.faults.next(name, [&] { return mount.disk.pathOf(folder) + "/" + entry; });
}

int reply(fuse_req_t request) {
    fuse_reply_err(request, 0);
    return 0;
}

int replyEntry(fuse_req_t request, ForgetfulDisk& disk, Id id) {
    const auto entry = entryOf(disk, id);
    disk.refer(id);
    fuse_reply_entry(request, &entry);
    return 0;
}

void lookup(fuse_req_t request, fuse_ino_t folder, const char* name) {
    serve(request, "lookup", folder, [&](DiskMount& mount) {
        if (std::strlen(name) > kLongestName) return ENAMETOOLONG;
        const Id id = mount.disk.lookUp(folder, name);
        if (id != 0) return replyEntry(request, mount.disk, id);
        fuse_entry_param none{};
        none.entry_timeout = kForEver;
        fuse_reply_entry(request, &none);
        return 0;
    });
}

void forget(fuse_req_t request, fuse_ino_t id, std::uint64_t count) {
    auto& mount = *static_cast<DiskMount*>(fuse_req_userdata(request));
    {
        const std::lock_guard lock(mount.mutex());
        mount.disk.release(id, count);
    }
    fuse_reply_none(request);
}

void getattr(fuse_req_t request, fuse_ino_t id, fuse_file_info*) {
    serve(request, "getattr", id, [&](DiskMount& mount) {
        const auto status = statusOf(id, *mount.disk.file(id));
        fuse_reply_attr(request, &status, kForEver);
        return 0;
    });
}

void setattr(fuse_req_t request, fuse_ino_t id, struct stat* to, int fields, fuse_file_info*) {
    const char* name = (fields & FUSE_SET_ATTR_SIZE) != 0 ? "truncate" : "setattr";
    serve(request, name, id, [&](DiskMount& mount) {
        auto& file = *mount.disk.file(id);
        if ((fields & FUSE_SET_ATTR_SIZE) != 0) {
            if (const int error = mount.disk.truncate(id, to->st_size)) return error;
        }
        auto& attributes = file.attributes;
        if ((fields & FUSE_SET_ATTR_MODE) != 0)
            attributes.mode = (attributes.mode & S_IFMT) | (to->st_mode & 07777);
        timespec present{};
        clock_gettime(CLOCK_REALTIME, &present);
        if ((fields & FUSE_SET_ATTR_MTIME) != 0) attributes.modified = to->st_mtim;
        if ((fields & FUSE_SET_ATTR_MTIME_NOW) != 0) attributes.modified = present;
        if ((fields & FUSE_SET_ATTR_ATIME) != 0) attributes.accessed = to->st_atim;
        if ((fields & FUSE_SET_ATTR_ATIME_NOW) != 0) attributes.accessed = present;
        mount.disk.attributesChanged(id);
        const auto status = statusOf(id, file);
        fuse_reply_attr(request, &status, kForEver);
        return 0;
    });
}

template <class Reply>
void make(fuse_req_t request, const char* call, fuse_ino_t folder, const char* name, mode_t mode,
          const std::string& target, Reply replyMade) {
    serve(request, "entry", folder, [&](DiskMount& mount) {
        if (std::strlen(name) > kLongestName) return ENAMETOOLONG;
        int error = faultAt(mount, call, folder, name);
        const Id id = error == 0 ? mount.disk.create(folder, name, mode, error, target) : 0;
        return id == 0 ? error : replyMade(mount.disk, id);
    });
}

void mknod(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode, dev_t) {
    make(request, "create", folder, name, mode, "",
         [&](ForgetfulDisk& disk, Id id) { return replyEntry(request, disk, id); });
}

void mkdir(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode) {
    make(request, "mkdir", folder, name, S_IFDIR | mode, "",
         [&](ForgetfulDisk& disk, Id id) { return replyEntry(request, disk, id); });
}

void symlink(fuse_req_t request, const char* target, fuse_ino_t folder, const char* name) {
    make(request, "symlink", folder, name, S_IFLNK | 0777, target,
         [&](ForgetfulDisk& disk, Id id) { return replyEntry(request, disk, id); });
}

void create(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode, fuse_file_info* info) {
    make(request, "create", folder, name, S_IFREG | (mode & 07777), "", [&](ForgetfulDisk& disk, Id id) {
        const auto entry = entryOf(disk, id);
        disk.refer(id);
        disk.refer(id);  // the handle
        info->keep_cache = 1;
        fuse_reply_create(request, &entry, info);
        return 0;
    });
}

void readlink(fuse_req_t request, fuse_ino_t id) {
    serve(request, "readlink", id, [&](DiskMount& mount) {
        fuse_reply_readlink(request, mount.disk.file(id)->target.c_str());
        return 0;
    });
}

void unlinkEntry(fuse_req_t request, fuse_ino_t folder, const char* name, bool isFolder) {
    serve(request, "entry", folder, [&](DiskMount& mount) {
        int error = faultAt(mount, isFolder ? "rmdir" : "unlink", folder, name);
        if (error == 0) error = mount.disk.remove(folder, name, isFolder);
        return error == 0 ? reply(request) : error;
    });
}

void unlink(fuse_req_t request, fuse_ino_t folder, const char* name) {
    unlinkEntry(request, folder, name, false);
}

void rmdir(fuse_req_t request, fuse_ino_t folder, const char* name) {
    unlinkEntry(request, folder, name, true);
}

void rename(fuse_req_t request, fuse_ino_t from, const char* name, fuse_ino_t to, const char* newName,
            unsigned flags) {
    serve(request, "entry", from, [&](DiskMount& mount) {
        int error = faultAt(mount, "rename", to, newName);
        if (error == 0) error = mount.disk.rename(from, name, to, newName, flags);
        return error == 0 ? reply(request) : error;
    });
}

void link(fuse_req_t request, fuse_ino_t id, fuse_ino_t folder, const char* name) {
    serve(request, "entry", id, [&](DiskMount& mount) {
        int error = faultAt(mount, "link", folder, name);
        if (error == 0) error = mount.disk.link(id, folder, name);
        return error == 0 ? replyEntry(request, mount.disk, id) : error;
    });
}

void open(fuse_req_t request, fuse_ino_t id, fuse_file_info* info) {
    serve(request, "open", id, [&](DiskMount& mount) {
        mount.disk.refer(id);
        info->keep_cache = 1;
        fuse_reply_open(request, info);
        return 0;
    });
}

void release(fuse_req_t request, fuse_ino_t id, fuse_file_info*) {
    serve(request, "release", id, [&](DiskMount& mount) {
        mount.disk.release(id, 1);
        return reply(request);
    });
}

void read(fuse_req_t request, fuse_ino_t id, std::size_t count, off_t offset, fuse_file_info*) {
    serve(request, "read", id, [&](DiskMount& mount) {
        const auto bytes = mount.disk.file(id)->contents.read(offset, count);
        fuse_reply_buf(request, bytes.data(), bytes.size());
        return 0;
    });
}

void write(fuse_req_t request, fuse_ino_t id, const char* bytes, std::size_t count, off_t offset,
           fuse_file_info*) {
    serve(request, "write", id, [&](DiskMount& mount) {
        const int error = mount.disk.write(id, offset, {bytes, count});
        if (error == 0) fuse_reply_write(request, count);
        return error;
    });
}

void fallocate(fuse_req_t request, fuse_ino_t id, int mode, off_t offset, off_t count, fuse_file_info*) {
    serve(request, "fallocate", id, [&](DiskMount& mount) {
        const int error = mount.disk.allocate(id, mode, offset, count);
        return error == 0 ? reply(request) : error;
    });
}

void sync(fuse_req_t request, fuse_ino_t id, int dataOnly, fuse_file_info*) {
    auto& mount = *static_cast<DiskMount*>(fuse_req_userdata(request));
    {
        const std::lock_guard lock(mount.mutex());
        mount.beforeSync();
        if (const int error = mount.faults.next("fsync", [&] { return mount.disk.pathOf(id); })) {
            mount.disk.failSync(id);
            fuse_reply_err(request, error);
            return;
        }
    }
    serve(request, "sync", id, [&](DiskMount& served) {
        served.disk.sync(id, dataOnly != 0);
        return reply(request);
    });
}

/// A listing as it was when the folder was opened.
using Listing = std::vector<std::pair<std::string, Id>>;

void opendir(fuse_req_t request, fuse_ino_t id, fuse_file_info* info) {
    serve(request, "opendir", id, [&](DiskMount& mount) {
        const auto& file = *mount.disk.file(id);
        if (!S_ISDIR(file.attributes.mode)) return ENOTDIR;
        auto listing = std::make_unique<Listing>(Listing{{".", id}, {"..", file.parent}});
        listing->insert(listing->end(), file.entries.begin(), file.entries.end());
        mount.disk.refer(id);
        info->fh = reinterpret_cast<std::uint64_t>(listing.release());
        fuse_reply_open(request, info);
        return 0;
    });
}

void readdir(fuse_req_t request, fuse_ino_t id, std::size_t most, off_t offset, fuse_file_info* info) {
    serve(request, "readdir", id, [&](DiskMount& mount) {
        const auto& listing = *reinterpret_cast<const Listing*>(info->fh);
        std::vector<char> buffer(most);
        std::size_t used = 0;
        for (auto at = static_cast<std::size_t>(offset); at < listing.size(); ++at) {
            struct stat status {};
            status.st_ino = listing[at].second;
            if (const auto* file = mount.disk.file(listing[at].second))
                status.st_mode = file->attributes.mode;
            const auto length =
                fuse_add_direntry(request, buffer.data() + used, most - used, listing[at].first.c_str(),
                                  &status, static_cast<off_t>(at + 1));
            if (length > most - used) break;
            used += length;
        }
        fuse_reply_buf(request, buffer.data(), used);
        return 0;
    });
}

void releasedir(fuse_req_t request, fuse_ino_t id, fuse_file_info* info) {
    const std::unique_ptr<Listing> listing(reinterpret_cast<Listing*>(info->fh));
    release(request, id, info);
}

void statfs(fuse_req_t request, fuse_ino_t) {
    serve(request, "statfs", ForgetfulDisk::kRoot, [&](DiskMount& mount) {
        const auto space = mount.disk.space();
        struct statvfs status {};
        status.f_bsize = status.f_frsize = FileContents::kPage;
        status.f_blocks = static_cast<fsblkcnt_t>(space.total / FileContents::kPage);
        const auto free = std::max(space.total - space.used, std::int64_t{0}) / FileContents::kPage;
        status.f_bfree = status.f_bavail = static_cast<fsblkcnt_t>(free);
        status.f_files = status.f_ffree = status.f_favail = 1'000'000;
        status.f_namemax = kLongestName;
        fuse_reply_statfs(request, &status);
        return 0;
    });
}

void setxattr(fuse_req_t request, fuse_ino_t id, const char* name, const char* value, std::size_t size,
              int flags) {
    serve(request, "setxattr", id, [&](DiskMount& mount) {
        auto& extended = mount.disk.file(id)->attributes.extended;
        const bool exists = extended.contains(name);
        if (exists && (flags & 1) != 0) return EEXIST;
        if (!exists && (flags & 2) != 0) return ENODATA;
        extended[name] = std::string(value, size);
        mount.disk.attributesChanged(id);
        return reply(request);
    });
}

int replyBytes(fuse_req_t request, const std::string& bytes, std::size_t most) {
    if (most == 0) {
        fuse_reply_xattr(request, bytes.size());
    } else if (bytes.size() > most) {
        return ERANGE;
    } else {
        fuse_reply_buf(request, bytes.data(), bytes.size());
    }
    return 0;
}

void getxattr(fuse_req_t request, fuse_ino_t id, const char* name, std::size_t most) {
    serve(request, "getxattr", id, [&](DiskMount& mount) {
        const auto& extended = mount.disk.file(id)->attributes.extended;
        const auto found = extended.find(name);
        return found == extended.end() ? ENODATA : replyBytes(request, found->second, most);
    });
}

void listxattr(fuse_req_t request, fuse_ino_t id, std::size_t most) {
    serve(request, "listxattr", id, [&](DiskMount& mount) {
        std::string names;
        for (const auto& [name, value] : mount.disk.file(id)->attributes.extended)
            names += name + '\0';
        return replyBytes(request, names, most);
    });
}

void removexattr(fuse_req_t request, fuse_ino_t id, const char* name) {
    serve(request, "removexattr", id, [&](DiskMount& mount) {
        if (mount.disk.file(id)->attributes.extended.erase(name) == 0) return ENODATA;
        mount.disk.attributesChanged(id);
        return reply(request);
    });
}

void init(void*, fuse_conn_info* connection) {
    // Shared mappings of a file that is being written see each other through the page cache; writes come here
    // at once, so a killed program loses none.
    connection->want &= ~static_cast<unsigned>(FUSE_CAP_WRITEBACK_CACHE);
}

std::int64_t monotonicTime() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

std::int64_t noteTime(const std::string& folder) {
    const auto time = monotonicTime();
    std::filesystem::create_directories(folder);
    std::ofstream(folder + "/time") << time << "\n";
    return time;
}

}  // namespace

DiskMount::~DiskMount() {
    if (!session_) return;
    fuse_remove_signal_handlers(session_);
    fuse_session_unmount(session_);
    fuse_session_destroy(session_);
}

bool DiskMount::mount(const std::string& folder) {
    fuse_lowlevel_ops operations{};
    operations.init = init;
    operations.lookup = lookup;
    operations.forget = forget;
    operations.getattr = getattr;
    operations.setattr = setattr;
    operations.readlink = readlink;
    operations.mknod = mknod;
    operations.mkdir = mkdir;
    operations.unlink = unlink;
    operations.rmdir = rmdir;
    operations.symlink = symlink;
    operations.rename = rename;
    operations.link = link;
    operations.create = create;
    operations.open = open;
    operations.read = read;
    operations.write = write;
    operations.release = release;
    operations.fsync = sync;
    operations.opendir = opendir;
    operations.readdir = readdir;
    operations.releasedir = releasedir;
    operations.fsyncdir = sync;
    operations.statfs = statfs;
    operations.setxattr = setxattr;
    operations.getxattr = getxattr;
    operations.listxattr = listxattr;
    operations.removexattr = removexattr;
    operations.fallocate = fallocate;
    const char* arguments[] = {"forgetful-disk", "-o", "fsname=forgetful-disk,default_permissions"};
    fuse_args args = FUSE_ARGS_INIT(3, const_cast<char**>(arguments));
    session_ = fuse_session_new(&args, &operations, sizeof operations, this);
    fuse_opt_free_args(&args);
    return session_ && fuse_set_signal_handlers(session_) == 0 &&
           fuse_session_mount(session_, folder.c_str()) == 0;
}

void DiskMount::run() {
    fuse_session_loop(session_);
}

std::int64_t DiskMount::writeCut(std::uint64_t seed, const std::string& folder) {
    const auto time = noteTime(folder);
    disk.writeCut(seed, folder);
    return time;
}

std::int64_t DiskMount::writeNow(const std::string& folder) {
    const auto time = noteTime(folder);
    disk.writeNow(folder);
    return time;
}

void DiskMount::beforeSync() {
    auto& cuts = syncCuts;
    if (cuts.folder.empty() || cuts.written >= cuts.most || ++cuts.syncs % cuts.every != 0) return;
    writeCut(cuts.seed + cuts.written, cuts.folder + "/" + std::to_string(cuts.written));
    ++cuts.written;
}

}  // namespace tarnwell::testing
