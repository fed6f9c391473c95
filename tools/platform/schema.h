// The platform's tables, the same in SQLite and PostgreSQL.
#pragma once

#include "dbconn.h"

namespace platform {

// Creates what is missing; false with *why when the database refused.
bool createSchema(DbConn &db, QString *why);

}  // namespace platform
