#include "drive/FuseAdapter.h"

#define FUSE_USE_VERSION 314
#include <fuse_lowlevel.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <mutex>
#include <new>

#include "util/TWLogger.h"

namespace tarnwell {
namespace {

/// libfuse's latest message on this thread: the reason when a mount fails.
thread_local std::string latestMessage;  // NOLINT(cert-err58-cpp)

[[gnu::format(printf, 2, 0)]] void logFuseMessage(fuse_log_level level, const char* format,
                                                  va_list arguments) {
    if (level > FUSE_LOG_INFO) return;
    char text[512];
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    if (length <= 0) return;
    try {
        std::string_view message(text,
                                 std::min<std::size_t>(static_cast<std::size_t>(length), sizeof text - 1));
        while (message.ends_with('\n'))
            message.remove_suffix(1);
        latestMessage = message;
        TWLog(kLogFuse, "%@", message);
    } catch (const std::exception&) {
        return;  // no memory for a log line
    }
}

/// Where the bytes of one read reply are put together; one per file-system thread, kept between requests.
char* replyBuffer(std::size_t size) {
    thread_local std::unique_ptr<char[]> buffer;
    thread_local std::size_t capacity = 0;
    if (size > capacity) {
        capacity = 0;
        buffer = std::make_unique_for_overwrite<char[]>(size);
        capacity = size;
    }
    return buffer.get();
}

/// Bytes in the thread's reply buffer. Handing over the cache file's pages instead (splice) was measured no
/// faster for requests of 4 KiB and of 1 MiB, and an ordinary user's pipes are too small for the latter.
struct Bytes {
    const char* data;
    std::size_t size;
};
struct Written {
    std::size_t size;
};
/// An attribute's value or a list of names; `room` 0 asks for the length alone.
struct AttributeText {
    std::string text;
    std::size_t room;
};
/// A new file, and the open of it.
struct CreatedFile {
    DriveOperations::Entry entry;
    fuse_file_info info;
};
struct Opened {
    fuse_file_info info;
    fuse_ino_t node;
    bool isDirectory;
};
/// Forgetting has no answer.
struct Nothing {};

}  // namespace

struct FuseBinding {
    FuseBinding(std::shared_ptr<TWFuseFileSystem> fileSystem, MountOptions mountOptions,
                std::function<void()> onInit)
        : options(std::move(mountOptions)),
          initialised(std::move(onInit)),
          operations(std::move(fileSystem), options) {}

    MountOptions options;
    std::function<void()> initialised;
    DriveOperations operations;
    fuse_session* session = nullptr;
    bool isMounted = false;

    std::string makeSession();
    void configure(fuse_conn_info& connection) const;

    // Requests: value or errno.

    ErrnoOr<DriveOperations::Entry> lookup(fuse_req_t, fuse_ino_t parent, const char* name) {
        return operations.lookup(parent, name);
    }
    ErrnoOr<Nothing> forget(fuse_req_t, fuse_ino_t node, std::uint64_t count) {
        operations.forget(node, count);
        return Nothing{};
    }
    ErrnoOr<Nothing> forgetMulti(fuse_req_t, std::size_t count, fuse_forget_data* forgets) {
        for (std::size_t i = 0; i < count; ++i)
            operations.forget(forgets[i].ino, forgets[i].nlookup);
        return Nothing{};
    }
    ErrnoOr<DriveOperations::Attributes> getattr(fuse_req_t, fuse_ino_t node, fuse_file_info*) {
        return operations.getattr(node);
    }
    ErrnoOr<DriveOperations::Attributes> setattr(fuse_req_t, fuse_ino_t node, struct stat* attributes,
                                                 int fields, fuse_file_info* info);
    ErrnoOr<Done> access(fuse_req_t, fuse_ino_t node, int mask) { return operations.access(node, mask); }
    ErrnoOr<Opened> open(fuse_req_t request, fuse_ino_t node, fuse_file_info* info) {
        const auto opened = operations.open(node, info->flags, fuse_req_ctx(request)->pid);
        if (!opened) return Errno{opened.error()};
        Opened reply{*info, node, false};
        reply.info.fh = opened->handle;
        reply.info.direct_io = opened->directIo;
        reply.info.noflush = opened->noflush;
        return reply;
    }
    ErrnoOr<Bytes> read(fuse_req_t, fuse_ino_t node, std::size_t size, off_t offset, fuse_file_info* info);
    ErrnoOr<Written> write(fuse_req_t, fuse_ino_t node, const char* buffer, std::size_t size, off_t offset,
                           fuse_file_info* info) {
        const auto written = operations.write(node, info->fh, buffer, size, offset, info->flags);
        if (!written) return Errno{written.error()};
        return Written{*written};
    }
    ErrnoOr<Done> fallocate(fuse_req_t, fuse_ino_t node, int mode, off_t offset, off_t length,
                            fuse_file_info* info) {
        return operations.fallocate(node, info->fh, mode, offset, length);
    }
    ErrnoOr<Done> flush(fuse_req_t, fuse_ino_t node, fuse_file_info* info) {
        return operations.flush(node, info->fh);
    }
    ErrnoOr<Done> fsync(fuse_req_t, fuse_ino_t node, int, fuse_file_info* info) {
        return operations.fsync(node, info->fh);
    }
    ErrnoOr<Done> fsyncdir(fuse_req_t, fuse_ino_t node, int, fuse_file_info*) {
        return operations.fsyncdir(node);
    }
    ErrnoOr<Done> release(fuse_req_t, fuse_ino_t node, fuse_file_info* info) {
        operations.release(node, info->fh);
        return Done{};
    }
    ErrnoOr<Opened> opendir(fuse_req_t, fuse_ino_t node, fuse_file_info* info) {
        const auto opened = operations.opendir(node);
        if (!opened) return Errno{opened.error()};
        Opened reply{*info, node, true};
        reply.info.fh = opened->handle;
        return reply;
    }
    ErrnoOr<Bytes> readdir(fuse_req_t request, fuse_ino_t node, std::size_t size, off_t offset,
                           fuse_file_info* info);
    ErrnoOr<Done> releasedir(fuse_req_t, fuse_ino_t, fuse_file_info* info) {
        operations.releasedir(info->fh);
        return Done{};
    }
    ErrnoOr<struct statvfs> statfs(fuse_req_t, fuse_ino_t) { return operations.statfs(); }
    ErrnoOr<AttributeText> getxattr(fuse_req_t, fuse_ino_t node, const char* name, std::size_t size) {
        return fitting(operations.getxattr(node, name), size);
    }
    ErrnoOr<AttributeText> listxattr(fuse_req_t, fuse_ino_t node, std::size_t size) {
        return fitting(operations.listxattr(node), size);
    }
    ErrnoOr<Done> setxattr(fuse_req_t, fuse_ino_t node, const char* name, const char* value, std::size_t size,
                           int flags) {
        return operations.setxattr(node, name, std::string_view(value, size), flags);
    }
    ErrnoOr<Done> removexattr(fuse_req_t, fuse_ino_t node, const char* name) {
        return operations.removexattr(node, name);
    }
    ErrnoOr<CreatedFile> create(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode,
                                fuse_file_info* info);
    ErrnoOr<DriveOperations::Entry> mknod(fuse_req_t request, fuse_ino_t parent, const char* name,
                                          mode_t mode, dev_t) {
        return operations.mknod(parent, name, mode, fuse_req_ctx(request)->pid);
    }
    ErrnoOr<DriveOperations::Entry> mkdir(fuse_req_t, fuse_ino_t parent, const char* name, mode_t mode) {
        return operations.mkdir(parent, name, mode);
    }
    ErrnoOr<Done> unlink(fuse_req_t, fuse_ino_t parent, const char* name) {
        return operations.unlink(parent, name);
    }
    ErrnoOr<Done> rmdir(fuse_req_t, fuse_ino_t parent, const char* name) {
        return operations.rmdir(parent, name);
    }
    ErrnoOr<Done> rename(fuse_req_t, fuse_ino_t parent, const char* name, fuse_ino_t newParent,
                         const char* newName, unsigned flags) {
        return operations.rename(parent, name, newParent, newName, flags);
    }
    /// What a share cannot hold: the error of file systems without links.
    template <class... Arguments>
    ErrnoOr<Done> refuse(fuse_req_t, Arguments...) {
        return Errno{EPERM};
    }

    static ErrnoOr<AttributeText> fitting(ErrnoOr<std::string> text, std::size_t room) {
        if (!text) return Errno{text.error()};
        if (room != 0 && text->size() > room) return Errno{ERANGE};
        return AttributeText{*std::move(text), room};
    }

    // Replies: negative when the kernel did not take it.

    static fuse_entry_param parametersOf(const DriveOperations::Entry& entry) {
        fuse_entry_param parameters{};
        parameters.ino = entry.node;
        parameters.attr = entry.attributes.stat;
        parameters.attr_timeout = parameters.entry_timeout = entry.attributes.validSeconds;
        return parameters;
    }
    static int send(fuse_req_t request, const DriveOperations::Entry& entry) {
        const auto parameters = parametersOf(entry);
        return fuse_reply_entry(request, &parameters);
    }
    static int send(fuse_req_t request, const CreatedFile& created) {
        const auto parameters = parametersOf(created.entry);
        return fuse_reply_create(request, &parameters, &created.info);
    }
    static int send(fuse_req_t request, const DriveOperations::Attributes& attributes) {
        return fuse_reply_attr(request, &attributes.stat, attributes.validSeconds);
    }
    static int send(fuse_req_t request, const Opened& opened) {
        return fuse_reply_open(request, &opened.info);
    }
    static int send(fuse_req_t request, const Bytes& bytes) {
        return fuse_reply_buf(request, bytes.data, bytes.size);
    }
    static int send(fuse_req_t request, const Written& written) {
        return fuse_reply_write(request, written.size);
    }
    static int send(fuse_req_t request, const struct statvfs& volume) {
        return fuse_reply_statfs(request, &volume);
    }
    static int send(fuse_req_t request, const AttributeText& attribute) {
        return attribute.room == 0 ? fuse_reply_xattr(request, attribute.text.size())
                                   : fuse_reply_buf(request, attribute.text.data(), attribute.text.size());
    }
    static int send(fuse_req_t request, Done) { return fuse_reply_err(request, 0); }
    static int send(fuse_req_t request, Nothing) {
        fuse_reply_none(request);
        return 0;
    }

    void takeBack(const DriveOperations::Entry& entry) { operations.forget(entry.node, 1); }
    void takeBack(const CreatedFile& created) {
        operations.release(created.entry.node, created.info.fh);
        operations.forget(created.entry.node, 1);
    }
    void takeBack(const Opened& opened) {
        if (opened.isDirectory)
            operations.releasedir(opened.info.fh);
        else
            operations.release(opened.node, opened.info.fh);
    }
    template <class Other>
    void takeBack(const Other&) {}
};

namespace {

int errnoOfCurrentException(const char* operation) noexcept {
    try {
        throw;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    } catch (const std::exception& error) {
        try {
            TWLog(kLogFuse, "Error! %@ failed: %@", operation, error.what());
        } catch (const std::exception&) {
            return ENOMEM;
        }
    } catch (...) {
        return EIO;
    }
    return EIO;
}

template <std::size_t Size>
struct Name {
    char text[Size];
    constexpr Name(const char (&name)[Size]) { std::copy_n(name, Size, text); }  // NOLINT
};

/// The C function that libfuse calls for one request type.
template <Name name, auto member>
struct Thunk;
template <Name name, class Value, class... Arguments,
          ErrnoOr<Value> (FuseBinding::*member)(fuse_req_t, Arguments...)>
struct Thunk<name, member> {
    static void call(fuse_req_t request, Arguments... arguments) noexcept {
        auto& binding = *static_cast<FuseBinding*>(fuse_req_userdata(request));
        ErrnoOr<Value> result = Errno{EIO};
        try {
            result = (binding.*member)(request, arguments...);
        } catch (...) {
            result = Errno{errnoOfCurrentException(name.text)};
        }
        if constexpr (std::is_same_v<Value, Nothing>) {
            FuseBinding::send(request, Nothing{});
        } else if (!result) {
            fuse_reply_err(request, result.error());
        } else if (FuseBinding::send(request, *result) < 0) {
            try {
                binding.takeBack(*result);
            } catch (...) {
                errnoOfCurrentException(name.text);
            }
        }
    }
};

void onInit(void* userData, fuse_conn_info* connection) noexcept {
    const auto& binding = *static_cast<const FuseBinding*>(userData);
    binding.configure(*connection);
    try {
        binding.initialised();
    } catch (...) {
        errnoOfCurrentException("init");
    }
}

const fuse_lowlevel_ops& requestTable() {
    static const fuse_lowlevel_ops table = [] {
        fuse_lowlevel_ops operations{};
        operations.init = &onInit;
        operations.lookup = &Thunk<"lookup", &FuseBinding::lookup>::call;
        operations.forget = &Thunk<"forget", &FuseBinding::forget>::call;
        operations.forget_multi = &Thunk<"forget_multi", &FuseBinding::forgetMulti>::call;
        operations.getattr = &Thunk<"getattr", &FuseBinding::getattr>::call;
        operations.setattr = &Thunk<"setattr", &FuseBinding::setattr>::call;
        operations.access = &Thunk<"access", &FuseBinding::access>::call;
        operations.open = &Thunk<"open", &FuseBinding::open>::call;
        operations.read = &Thunk<"read", &FuseBinding::read>::call;
        operations.write = &Thunk<"write", &FuseBinding::write>::call;
        operations.flush = &Thunk<"flush", &FuseBinding::flush>::call;
        operations.release = &Thunk<"release", &FuseBinding::release>::call;
        operations.opendir = &Thunk<"opendir", &FuseBinding::opendir>::call;
        operations.readdir = &Thunk<"readdir", &FuseBinding::readdir>::call;
        operations.releasedir = &Thunk<"releasedir", &FuseBinding::releasedir>::call;
        operations.statfs = &Thunk<"statfs", &FuseBinding::statfs>::call;
        operations.getxattr = &Thunk<"getxattr", &FuseBinding::getxattr>::call;
        operations.listxattr = &Thunk<"listxattr", &FuseBinding::listxattr>::call;
        operations.unlink = &Thunk<"unlink", &FuseBinding::unlink>::call;
        operations.fsync = &Thunk<"fsync", &FuseBinding::fsync>::call;
        operations.fsyncdir = &Thunk<"fsyncdir", &FuseBinding::fsyncdir>::call;
        operations.fallocate = &Thunk<"fallocate", &FuseBinding::fallocate>::call;
        operations.create = &Thunk<"create", &FuseBinding::create>::call;
        operations.mknod = &Thunk<"mknod", &FuseBinding::mknod>::call;
        operations.mkdir = &Thunk<"mkdir", &FuseBinding::mkdir>::call;
        operations.rmdir = &Thunk<"rmdir", &FuseBinding::rmdir>::call;
        operations.rename = &Thunk<"rename", &FuseBinding::rename>::call;
        operations.setxattr = &Thunk<"setxattr", &FuseBinding::setxattr>::call;
        operations.removexattr = &Thunk<"removexattr", &FuseBinding::removexattr>::call;
        operations.symlink =
            &Thunk<"symlink", &FuseBinding::refuse<const char*, fuse_ino_t, const char*>>::call;
        operations.link = &Thunk<"link", &FuseBinding::refuse<fuse_ino_t, fuse_ino_t, const char*>>::call;
        // Not here on purpose: getlk, setlk and flock, so that the kernel keeps the locks itself, also when
        // this process is busy; lseek and copy_file_range, whose substitutes in the kernel are right.
        return operations;
    }();
    return table;
}

}  // namespace

ErrnoOr<Bytes> FuseBinding::read(fuse_req_t, fuse_ino_t node, std::size_t size, off_t offset,
                                 fuse_file_info* info) {
    char* buffer = replyBuffer(size);
    const auto count = operations.read(node, info->fh, buffer, size, offset);
    if (!count) return Errno{count.error()};
    return Bytes{buffer, *count};
}

ErrnoOr<DriveOperations::Attributes> FuseBinding::setattr(fuse_req_t, fuse_ino_t node,
                                                          struct stat* attributes, int fields,
                                                          fuse_file_info* info) {
    DriveOperations::AttributeRequest request;
    if ((fields & FUSE_SET_ATTR_MODE) != 0) request.mode = attributes->st_mode;
    if ((fields & FUSE_SET_ATTR_UID) != 0) request.owner = attributes->st_uid;
    if ((fields & FUSE_SET_ATTR_GID) != 0) request.group = attributes->st_gid;
    if ((fields & FUSE_SET_ATTR_SIZE) != 0) request.size = attributes->st_size;
    if ((fields & FUSE_SET_ATTR_ATIME) != 0) request.access = attributes->st_atim;
    if ((fields & FUSE_SET_ATTR_MTIME) != 0) request.modification = attributes->st_mtim;
    request.accessNow = (fields & FUSE_SET_ATTR_ATIME_NOW) != 0;
    request.modificationNow = (fields & FUSE_SET_ATTR_MTIME_NOW) != 0;
    return operations.setattr(node, info ? info->fh : 0, request);
}

ErrnoOr<CreatedFile> FuseBinding::create(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode,
                                         fuse_file_info* info) {
    const auto created = operations.create(parent, name, mode, info->flags, fuse_req_ctx(request)->pid);
    if (!created) return Errno{created.error()};
    CreatedFile reply{created->entry, *info};
    reply.info.fh = created->file.handle;
    reply.info.direct_io = created->file.directIo;
    reply.info.noflush = created->file.noflush;
    return reply;
}

ErrnoOr<Bytes> FuseBinding::readdir(fuse_req_t request, fuse_ino_t node, std::size_t size, off_t offset,
                                    fuse_file_info* info) {
    const auto listing = operations.listing(node, info->fh, offset);
    if (!listing) return Errno{listing.error()};
    const auto& entries = (*listing)->entries;
    char* buffer = replyBuffer(size);
    std::size_t used = 0;
    for (auto index = static_cast<std::size_t>(offset); index < entries.size(); ++index) {
        struct stat attributes {};
        attributes.st_ino = entries[index].number;
        attributes.st_mode = entries[index].type;
        const auto needed =
            fuse_add_direntry(request, buffer + used, size - used, entries[index].name.c_str(), &attributes,
                              static_cast<off_t>(index + 1));
        if (needed > size - used) break;
        used += needed;
    }
    return Bytes{buffer, used};
}

void FuseBinding::configure(fuse_conn_info& connection) const {
    if (options.synchronousReads) connection.want &= ~static_cast<unsigned>(FUSE_CAP_ASYNC_READ);
    // Entries that the kernel may not keep are not worth sending along with a listing.
    connection.want &= ~static_cast<unsigned>(FUSE_CAP_READDIRPLUS | FUSE_CAP_READDIRPLUS_AUTO);
    connection.want |= connection.capable & static_cast<unsigned>(FUSE_CAP_PARALLEL_DIROPS);
}

std::string FuseBinding::makeSession() {
    static std::once_flag once;
    std::call_once(once, [] { fuse_set_log_func(&logFuseMessage); });
    latestMessage.clear();
    fuse_args arguments = FUSE_ARGS_INIT(0, nullptr);
    const auto list = options.libfuseOptions();
    const bool added = fuse_opt_add_arg(&arguments, "tarnwell") == 0 &&
                       fuse_opt_add_arg(&arguments, "-o") == 0 &&
                       fuse_opt_add_arg(&arguments, list.c_str()) == 0;
    if (added) session = fuse_session_new(&arguments, &requestTable(), sizeof(fuse_lowlevel_ops), this);
    fuse_opt_free_args(&arguments);
    if (session) return {};
    return latestMessage.empty() ? "no file-system session" : latestMessage;
}

FuseAdapter::FuseAdapter(std::shared_ptr<TWFuseFileSystem> fileSystem, MountOptions options,
                         std::function<void()> initialised)
    : binding_(
          std::make_unique<FuseBinding>(std::move(fileSystem), std::move(options), std::move(initialised))) {}

FuseAdapter::~FuseAdapter() {
    if (!binding_->session) return;
    if (binding_->isMounted) fuse_session_unmount(binding_->session);
    fuse_session_destroy(binding_->session);
}

std::string FuseAdapter::mount(const std::string& path) {
    if (auto reason = binding_->makeSession(); !reason.empty()) return reason;
    if (fuse_session_mount(binding_->session, path.c_str()) != 0) {
        return latestMessage.empty() ? std::strerror(errno) : latestMessage;
    }
    binding_->isMounted = true;
    return {};
}

std::string FuseAdapter::attach(int descriptor) {
    static constexpr fuse_custom_io io{
        [](int socket, iovec* pieces, int count, void*) { return ::writev(socket, pieces, count); },
        [](int socket, void* buffer, std::size_t size, void*) { return ::read(socket, buffer, size); },
        nullptr, nullptr};
    auto reason = binding_->makeSession();
    if (reason.empty()) {
        const int error = fuse_session_custom_io(binding_->session, &io, descriptor);
        if (error == 0) return {};
        reason = std::strerror(-error);
    }
    ::close(descriptor);
    return reason;
}

void FuseAdapter::run() {
    fuse_loop_config* config = fuse_loop_cfg_create();
    if (!config) return;
    // Each worker reads requests through a descriptor of its own, so that they do not meet at one queue of
    // replies.
    fuse_loop_cfg_set_clone_fd(config, binding_->isMounted ? 1 : 0);
    fuse_loop_cfg_set_max_threads(config, kMaximumThreads);
    fuse_loop_cfg_set_idle_threads(config, kIdleThreads);
    fuse_session_loop_mt(binding_->session, config);
    fuse_loop_cfg_destroy(config);
    if (binding_->isMounted) {
        fuse_session_unmount(binding_->session);
        binding_->isMounted = false;
    }
}

std::string FuseAdapter::libraryVersion() {
    return fuse_pkgversion();
}

bool FuseAdapter::libraryIsRecent() {
    return fuse_version() >= FUSE_MAKE_VERSION(3, 12);
}

DriveOperations& FuseAdapter::operations() {
    return binding_->operations;
}

}  // namespace tarnwell
