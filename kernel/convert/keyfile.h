// The keyfile dialogue and the database key.
#pragma once

#include <cstdint>

namespace bt {

// Asks for the keyfile, username and password, unwraps the database key named by keyId and
// builds the key schedules. 1 on success, 0 on failure (after its own message on stderr).
int LoadDatabaseKey(int keyIdLength, const std::uint8_t* keyId);

}  // namespace bt
