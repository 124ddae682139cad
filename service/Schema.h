#pragma once

#include "service/Database.h"

namespace tarnwell::service {

/// Brings the database to this program's form, step by step, in one transaction. Several processes may do it
/// at once. A database made by a newer program is refused with a ServiceError: it is never changed by
/// guesswork.
void migrateSchema(Database& database);

}  // namespace tarnwell::service
