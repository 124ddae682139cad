#include "connector/ItemOperations.h"

#include <string>
#include <utility>

#include "connector/TaskGate.h"
#include "connector/Transmissions.h"
#include "platform/Executor.h"
#include "store/TWMetadataStorage.h"
#include "util/TWLogger.h"

namespace tarnwell {

void ItemOperations::begin(const LocalJournalPtr& entry, Kind kind) {
    const auto lock = environment_.store.beginWriteStorage();
    const auto share = transmissions_.begin(entry);
    if (!share) return;
    constexpr const char* kLines[] = {"new api: creating folder %@", "new api: renaming item %@",
                                      "new api: deleting item %@"};
    TWLog(kLogMain, kLines[static_cast<int>(kind)], entry->File->PublicName);
    environment_.background.async(gate_.guard([this, entry, kind, address = *share] {
        transmissions_.guarded(entry, [&] { send(entry, kind, address); });
    }));
}

void ItemOperations::send(const LocalJournalPtr& entry, Kind kind, const ShareAddress& share) {
    api_.sendFileApiRequest(api_.createEventForJournal(*entry, share), share, environment_.background,
                            gate_.guard([this, entry, kind](const FileApi::ResponsePtr& response) {
                                transmissions_.guarded(entry, [&] { answered(entry, kind, response.get()); });
                            }));
}

void ItemOperations::answered(const LocalJournalPtr& entry, Kind kind,
                              const TWFileJournalResponse* response) {
    if (!response) {
        constexpr const char* kLines[] = {
            "Warning! Failing folder creation: cannot receive responce from the server. ",
            "Warning! Failing item renaming: cannot receive responce from the server. ",
            "Warning! Failing item deletion: cannot receive responce from the server. "};
        TWLog(kLogMain, kLines[static_cast<int>(kind)]);
        transmissions_.retransmitRequest(entry);
        return;
    }
    std::string name;
    {
        const auto lock = environment_.store.beginReadStorage();
        name = entry->File->PublicName.str();
    }
    const int code = response->ResponseCode;
    if (code == 1) {
        transmissions_.deleteSucceededRequest(entry);
    } else if (kind != Kind::kDelete && code == 3) {
        renamedByService(entry, kind, *response);
        transmissions_.deleteSucceededRequest(entry);
    } else if (kind == Kind::kRename && code == 2) {
        TWLog(kLogMain, "Conflict detected during item %@ rename.", name);
        transmissions_.takeTheirs(*entry, response->TwVirtualFile);
        transmissions_.deleteSucceededRequest(entry);
    } else if (kind == Kind::kRename && code == 10) {
        TWLog(kLogMain, "Problem during item %@ rename : entity not found. Skipping it.", name);
        transmissions_.takeTheirs(*entry, response->TwVirtualFile);
        transmissions_.deleteSucceededRequest(entry);
    } else if (kind == Kind::kDelete && code == 9) {
        TWLog(kLogMain, "Warning! Failed to delete item %@ : delete ignored. So, deleting journal entry.",
              name);
        transmissions_.deleteFailedRequest(entry, response->TwVirtualFile);
    } else if (kind == Kind::kDelete && code == 10) {
        TWLog(kLogMain, "Warning! Failed to delete item %@ : entity not found. So, deleting journal entry.",
              name);
        transmissions_.deleteFailedRequest(entry, response->TwVirtualFile);
    } else {
        constexpr const char* kLines[] = {"Warning! Failed to create folder %@ : responce code %d.",
                                          "Warning! Failed to rename item %@ : responce code %d.",
                                          "Warning! Failed to delete item %@ : responce code %d."};
        TWLog(kLogMain, kLines[static_cast<int>(kind)], name, code);
        transmissions_.retransmitRequest(entry);
    }
}

void ItemOperations::renamedByService(const LocalJournalPtr& entry, Kind kind,
                                      const TWFileJournalResponse& response) {
    std::string ours;
    {
        const auto lock = environment_.store.beginReadStorage();
        ours = entry->File->PublicName.str();
    }
    const std::string theirs = response.TwVirtualFile ? response.TwVirtualFile->PublicName.str() : "";
    if (kind == Kind::kCreateFolder) {
        TWLog(kLogMain, "Duplicate detected during folder creation - renaming our folder from %@ to %@.",
              ours, theirs);
    } else {
        TWLog(kLogMain, "Duplicate detected during item rename - renaming our item from %@ to %@.", ours,
              theirs);
    }
    transmissions_.takeServerName(entry, theirs);
}

}  // namespace tarnwell
