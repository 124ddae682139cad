#include "app/RemoteCommands.h"

#include <algorithm>
#include <array>
#include <utility>

#include "app/OverlayIcons.h"
#include "app/TWMachportMsgParser.h"
#include "connector/StoreQueries.h"
#include "platform/DesktopServices.h"
#include "store/TWMetadataStorage.h"
#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {

namespace {

/// Everything but what may stand anywhere in a URL: the text is part of a query.
std::string percentEscaped(std::string_view text) {
    constexpr std::string_view kPlain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    std::string result;
    for (const char c : text) {
        if (kPlain.find(c) != std::string_view::npos) {
            result += c;
        } else {
            const auto byte = static_cast<unsigned char>(c);
            result += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
        }
    }
    return result;
}

}  // namespace

RemoteCommands::RemoteCommands(Collaborators collaborators)
    : use_(collaborators), self_(std::make_shared<RemoteCommands*>(this)) {}

RemoteCommands::Command RemoteCommands::commandNamed(std::string_view name) {
    static constexpr std::array<std::pair<std::string_view, Command>, 13> commands{{
        {"hello", &RemoteCommands::hello},
        {"createlink", &RemoteCommands::createlink},
        {"emaillink", &RemoteCommands::emaillink},
        {"newshare", &RemoteCommands::newshare},
        {"shareashare", &RemoteCommands::shareashare},
        {"togglesync", &RemoteCommands::togglesync},
        {"downloadfolder", &RemoteCommands::downloadfolder},
        {"downloadfile", &RemoteCommands::downloadfile},
        {"openroot", &RemoteCommands::openroot},
        {"openshare", &RemoteCommands::openshare},
        {"observe", &RemoteCommands::observe},
        {"unobserve", &RemoteCommands::unobserve},
        {"badge", &RemoteCommands::badge},
    }};
    const auto found =
        std::find_if(commands.begin(), commands.end(), [&](const auto& each) { return each.first == name; });
    return found == commands.end() ? nullptr : found->second;
}

void RemoteCommands::parseRemoteCommand(std::string_view text) {
    const auto message = TWMachportMsgParser::parseMessage(text);
    const Command command = message && isUtf8(text) ? commandNamed(message->command) : nullptr;
    if (!command) return TWLog(kLogMain, "Warning! Failed to parse remote command: %@", forLog(text));
    Item item;
    item.path = trimmedNewlines(message->argument);
    while (item.path.size() > 1 && item.path.ends_with('/'))
        item.path.pop_back();
    if (use_.store.layout().fullPathToRelative(item.path, item.relative) && !item.relative.empty())
        item.file = use_.store.fileWithPath(item.relative);
    (this->*command)(item);
}

ManagedSharePtr RemoteCommands::shareOf(const Item& item) const {
    return item.relative.empty() ? nullptr : use_.store.shareWithPath(item.relative);
}

bool RemoteCommands::needsFile(const Item& item) const {
    if (!item.file)
        TWLog(kLogMain, "parseRemoteCommand: Warning! Cannot obtain file for path %@", forLog(item.path));
    return item.file != nullptr;
}

void RemoteCommands::hello(const Item& /*item*/) {
    use_.mediator.sendFinderCommand("hej", use_.store.layout().mountPath());
}

void RemoteCommands::createlink(const Item& item) {
    if (needsFile(item)) putFileLinkToClipboard(item.file);
}

void RemoteCommands::emaillink(const Item& item) {
    if (!needsFile(item)) return;
    use_.mediator.createFilePublicLink(item.file, [weak = std::weak_ptr(self_)](const std::string& link) {
        const auto self = weak.lock();
        if (!self) return;
        const std::string subject = format("subject=%@", percentEscaped("File link"));
        const std::string body = format("body=%@", percentEscaped(link));
        (*self)->use_.desktop.openUrl(format("mailto:%@?%@&%@", "", subject, body));
    });
}

void RemoteCommands::newshare(const Item& /*item*/) {
    use_.mediator.openShareInWebClient(nullptr);
}

void RemoteCommands::shareashare(const Item& item) {
    if (const auto share = shareOf(item)) return use_.mediator.openShareInWebClient(share);
    TWLog(kLogMain, "parseRemoteCommand: Warning! Cannot obtain share for path %@", forLog(item.path));
}

void RemoteCommands::togglesync(const Item& item) {
    const auto toggle = [](std::optional<bool>& synchronize) { synchronize = !synchronize.value_or(false); };
    const auto share = item.file ? nullptr : shareOf(item);
    if (!item.file && !share) {
        TWLog(kLogMain, "parseRemoteCommand: Warning! Cannot obtain file or share for path %@",
              forLog(item.path));
        return;
    }
    {
        const auto change = use_.store.beginLocalChange();
        toggle(item.file ? item.file->Synchronize : share->Synchronize);
        if (item.file) {
            use_.store.markChanged(*item.file);
        } else {
            use_.store.noteShareChanged(*share);
        }
    }
    if (item.file) {
        use_.mediator.refreshSyncStatus(item.file);
    } else {
        use_.mediator.refreshShareSyncStatus(share);
    }
    use_.store.saveDelayed();
    use_.icons.refreshTree(item.path);
}

void RemoteCommands::downloadfolder(const Item& item) {
    if (item.isFile()) {
        return TWLog(
            kLogMain,
            "parseRemoteCommand: Warning! Wrong parameter for downloadfolder command - it is a file.");
    }
    if (item.file) return use_.mediator.downloadFolder(item.file);
    if (const auto share = shareOf(item)) return use_.mediator.downloadShare(share);
    TWLog(kLogMain, "parseRemoteCommand: Warning! Cannot obtain file or share for path %@",
          forLog(item.path));
}

void RemoteCommands::downloadfile(const Item& item) {
    if (!needsFile(item)) return;
    if (item.isFile()) return use_.mediator.downloadFile(item.file);
    TWLog(kLogMain, "parseRemoteCommand: Warning! Wrong parameter for downloadfile command - it is folder.");
}

void RemoteCommands::openroot(const Item& /*item*/) {
    openRootFolder();
}

void RemoteCommands::openshare(const Item& item) {
    const auto name = lastPathComponent(item.path);
    ManagedSharePtr named;
    {
        const auto lock = use_.store.beginReadStorage();
        for (const auto& share : use_.store.shares()) {
            if (share->DisplayName == name) named = share;
        }
    }
    if (named) return openShareFolder(named);
    TWLog(kLogMain, "parseRemoteCommand: Warning! Cannot obtain share for path %@", forLog(item.path));
}

void RemoteCommands::observe(const Item& item) {
    use_.icons.observe(item.path);
}

void RemoteCommands::unobserve(const Item& item) {
    use_.icons.unobserve(item.path);
}

void RemoteCommands::badge(const Item& item) {
    use_.icons.badge(item.path);
}

void RemoteCommands::openRootFolder() {
    use_.desktop.showFolder(use_.store.layout().mountPath());
}

void RemoteCommands::openShareFolder(const ManagedSharePtr& share) {
    std::string name;
    {
        const auto lock = use_.store.beginReadStorage();
        name = share->DisplayName.value_or("");
    }
    use_.desktop.showFolder(appendPathComponent(use_.store.layout().mountPath(), name));
}

void RemoteCommands::putFileLinkToClipboard(const TWVirtualFilePtr& file) {
    std::string name;
    {
        const auto lock = use_.store.beginReadStorage();
        name = file->PublicName.str();
    }
    use_.mediator.createFilePublicLink(file, [weak = std::weak_ptr(self_), name](const std::string& link) {
        const auto self = weak.lock();
        if (!self) return;
        (*self)->use_.clipboard.setLink(link, [weak, link, name](bool succeeded) {
            if (const auto live = weak.lock()) (*live)->clipboardSet(link, name, succeeded);
        });
    });
}

void RemoteCommands::clipboardSet(const std::string& link, const std::string& name, bool succeeded) {
    if (succeeded) {
        return use_.desktop.deliverNotification("Link was copied to Clipboard", format("File : %@", name));
    }
    // On a machine without a display this is where the user finds it.
    TWLog(kLogMain, "There is no clipboard for the link of %@: %@", name, link);
}

}  // namespace tarnwell
