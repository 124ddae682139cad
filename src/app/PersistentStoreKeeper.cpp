#include "app/PersistentStoreKeeper.h"

#include <string>

#include "connector/ConnectorSession.h"
#include "store/DelayedSave.h"
#include "store/LocalChangeJournal.h"
#include "store/StorePersistence.h"
#include "store/TWMetadataStorage.h"
#include "util/RecordMapping.h"
#include "util/TWLogger.h"

namespace tarnwell {

void PersistentStoreKeeper::load() {
    store_.persistence().load();
    const std::string text = store_.globalLoginResponce();
    if (text.empty()) return;
    std::string error;
    if (auto responce = parseRecord<GlobalLoginResponce>(text, error)) {
        session_.setGlobalLoginResponce(std::move(responce));
    } else {
        TWLog(kLogMain, "Warning! Failed to parse previously saved global login responce: error %@", error);
    }
}

void PersistentStoreKeeper::checkForFileModifications() {
    store_.journal().checkForFileModifications();
}

bool PersistentStoreKeeper::save() {
    delayedSave_.cancel();
    return store_.persistence().save();
}

void PersistentStoreKeeper::saveDelayed() {
    delayedSave_.request();
}

}  // namespace tarnwell
