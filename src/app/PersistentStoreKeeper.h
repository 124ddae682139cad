#pragma once

#include "app/StoreKeeper.h"

namespace tarnwell {

class ConnectorSession;
class DelayedSave;
class TWMetadataStorage;

/// The store's files behind StoreKeeper: hands the saved login reply to the connector, so that the drive can
/// be mounted before any server answered. Main thread only, saveDelayed() excepted.
class PersistentStoreKeeper final : public StoreKeeper {
  public:
    /// All outlive this.
    PersistentStoreKeeper(TWMetadataStorage& store, ConnectorSession& session, DelayedSave& delayedSave)
        : store_(store), session_(session), delayedSave_(delayedSave) {}

    void load() override;
    void checkForFileModifications() override;
    bool save() override;
    void saveDelayed() override;

  private:
    TWMetadataStorage& store_;
    ConnectorSession& session_;
    DelayedSave& delayedSave_;
};

}  // namespace tarnwell
