#pragma once

namespace tarnwell {

/// Brings the store over a restart. Main thread only.
class StoreKeeper {
  public:
    virtual ~StoreKeeper() = default;
    /// Fills the store from disk, the saved login reply included; an absent store leaves it empty.
    virtual void load() = 0;
    /// Enters what changed on disk while nobody looked into the journal.
    virtual void checkForFileModifications() = 0;
    /// Durable on return; false when something could not be saved.
    virtual bool save() = 0;
    /// Asks for a save once things have been quiet for a while. Any thread.
    virtual void saveDelayed() = 0;
};

}  // namespace tarnwell
