// The keyfile dialogue and the database key.
//
// A keyfile is a run of items, each a 2-byte length (least significant byte first, whatever the
// database's order) and that many bytes. Version "1.0": key ID, algorithm, then user entries
// (username, iteration count, salt, key encryption key length, database key wrapped under the
// user's key encryption key). Version "2.0": records tagged "KEY" (key ID, algorithm, two items
// not interpreted, database key wrapped under the keyfile master key) and "ADM" (a user entry
// whose wrapped key is the master key).
#pragma once

#include <cstdint>

#include "platform.h"

namespace bt {

// Asks for the keyfile, username and password, unwraps the database key named by keyId and
// builds the key schedules. 1 on success, 0 on failure (after its own message on stderr).
int LoadDatabaseKey(int keyIdLength, const std::uint8_t* keyId);

// Reads one item into buffer (at most maximum bytes): its length, 0 when there is none. Ends the
// process on an item longer than maximum or one cut short.
int ReadKeyfileItem(platform::File file, std::uint8_t* buffer, int maximum);

}  // namespace bt
